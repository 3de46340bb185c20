// Settings and log while many write at once, and editors meddle.
#include "common/csettings.h"
#include "common/logwriter.h"
#include "tests/faults/faultshim.h"
#include "tests/support/forked.h"
#include "tests/support/messagecatcher.h"
#include "tests/support/testinstallation.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QLockFile>
#include <QRegularExpression>
#include <QSettings>
#include <QtTest>

#include <thread>

#include <unistd.h>

using namespace TestInstallation;

namespace {

const bool isLong = qEnvironmentVariableIsSet("IPCHANNEL_LONG");

constexpr int (CSettings::*getters[])() = {&CSettings::detailsMaxWritingTime, &CSettings::dirPermissions,
                                           &CSettings::filePermissions};
const QList<int> values[] = {{5000, 700}, {30583}, {26214}};
constexpr int keys = std::size(getters);

void repeat(int ms, const std::function<void()> &work)
{
    for (const QDeadlineTimer end(ms); !end.hasExpired();)
        work();
}

bool allAreRight()
{
    int right = 0;
    for (int i = 0; i < keys; ++i)
        right += values[i].contains((CSettings().*getters[i])());
    return right == keys;
}

void put(const QString &text)
{
    debug("Test"_s, text, DebugAlways, DebugFlagFileOnly);
}

// Somebody else, who holds the lock for a while and lives on.
int holdLock()
{
    QLockFile lock(settingsPath() + ".lock"_s);
    if (lock.tryLock(0))
        QThread::msleep(250);
    return 0;
}

void meddle(int ms)
{
    const QByteArray text = "; mine\n[Foreign]\nkey=1\n[Details]\nmaxWritingTime=700\n";
    const QString name = settingsPath();
    const QString edited = name + ".edited"_s;
    const auto putSlowly = [&] {
        QFile file(name);
        file.open(QIODevice::WriteOnly);
        QThread::usleep(300);
        file.write(text);
    };
    const std::function<bool()> acts[] = {
        [&] { return Forked::run(holdLock, 65534) == 0; }, [&] { return putSlowly(), true; },
        [&] {
            return write(edited, text) && ::rename(QFile::encodeName(edited), QFile::encodeName(name)) == 0;
        },
        [&] { return QFile::remove(name); }, [&] { return write(name, text + "garbage\n"); }};
    int round = 0;
    repeat(ms, [&] {
        acts[++round % 5]();
        QThread::msleep(3);
    });
    write(name, text);
}

} // namespace

class TestPressure : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { clean(); }
    // Four processes of ours and one that uses QSettings, each with keys of its own.
    void writersOfSettingsLoseNothing()
    {
        const int own = isLong ? 300 : 40;
        QVERIFY(writeSettings("[Foreign]\nkey=1\n"));
        const auto work = [own](int number) {
            QSettings qt(settingsPath(), QSettings::IniFormat);
            const bool isOurs = number < 4;
            for (int key = 0; key < own; ++key) {
                const QString name = "P%1/k%2"_s.arg(number).arg(key);
                if (isOurs)
                    CSettings().write(name, key);
                else if (key % 4 == 0)
                    qt.setValue(name, key);
                if (isOurs ? !allAreRight() : (qt.sync(), qt.status() != QSettings::NoError))
                    return 1;
            }
            const QString last = "P%1/k%2"_s.arg(number).arg(own - 1);
            for (int again = 0; again < 200 && isOurs && CIniText(settings()).items(last).isEmpty();
                 ++again) {
                QThread::msleep(50); // what could not be written is, later
                allAreRight();
            }
            return 0;
        };
        QCOMPARE(Forked::failures(5, work), 0);
        const QSettings result(settingsPath(), QSettings::IniFormat);
        QCOMPARE(result.value("Foreign/key"_s).toInt(), 1);
        QCOMPARE(result.allKeys().size(), 1 + 4 * own + own / 4 + keys);
    }

    // One has emptied the file and writes later, the other comes between our reading and our renaming.
    void editorsAreNotOverwritten()
    {
        QVERIFY(writeSettings("[X]\n"));
        const auto work = [](int) {
            Forked::mountDisk(QFileInfo(settingsPath()).path(), "size=4m"); // quick, where we may
            QFile file(settingsPath());
            QElapsedTimer clock;
            clock.start();
            file.open(QIODevice::WriteOnly);
            std::thread editor([&] {
                QThread::msleep(8);
                file.write("; mine\n");
                file.close();
            });
            const bool isRight = allAreRight();
            editor.join();
            const bool isKept =
                settings().startsWith("; mine\n") || clock.elapsed() > 15; // the editor came too late

            bool isEdited = false;
            Fault::beforeCreation = [&](const char *made) {
                if (!isEdited && QByteArray(made).endsWith(".new"))
                    isEdited = writeSettings("; mine, too\n");
            };
            CSettings().write("X/y"_s, 1);
            return isRight && isKept && settings() == "; mine, too\n\n[X]\ny=1\n" ? 0 : 1;
        };
        QCOMPARE(Forked::failures(1, work), 0);
    }

    // Four processes, one of them with four threads; editors save, replace, remove and garble the file, and
    // somebody else holds its lock.
    void settingsStayUsable()
    {
        const int ms = isLong ? 60000 : 2000;
        const QString directory = QFileInfo(settingsPath()).path();
        QVERIFY(QDir().mkpath(directory));
        if (!Forked::mountDisk(directory, "size=4m")) // whose syncs take no time
            QSKIP("needs to mount a disk");
        QVERIFY(writeSettings("[Details]\nmaxWritingTime=700\n"));
        const auto work = [ms](int number) {
            std::atomic<int> wrong{0};
            Forked::inThreads(number == 0 ? 4 : 1,
                              [&](int) { repeat(ms, [&] { wrong += !allAreRight(); }); });
            QThread::msleep(1100); // the next try of what could not be written
            return wrong == 0 && allAreRight() ? 0 : 1;
        };
        QCOMPARE(Forked::failures(4, work, [ms] { meddle(ms); }), 0);

        QCOMPARE(Forked::failures(1, [](int) { return allAreRight() ? 0 : 1; }), 0);
        const QSettings result(settingsPath(), QSettings::IniFormat);
        QCOMPARE(result.value("Details/maxWritingTime"_s).toInt(), 700); // the last edit
        QCOMPARE(result.allKeys().size(), 1 + keys);
        QVERIFY(settings().startsWith("; mine\n"));
    }

    void recordsStayWhole()
    {
        const int records = isLong ? 5000 : 500; // of each of 8 threads in 2 processes
        const auto work = [records](int process) {
            Forked::inThreads(8, [=](int thread) {
                for (int i = 0; i < records; ++i) {
                    const QString line = "%1 %2 %3 "_s.arg(process).arg(thread).arg(i) +
                                         QString((i * 37 + thread) % 300, QLatin1Char('x'));
                    put(line + QLatin1Char('\n') + line + "\n\n"_s + line);
                }
            });
            return 0;
        };
        QCOMPARE(Forked::failures(2, work), 0);

        const QRegularExpression record(
            "\\G[\\d:.]{12} {22}Test((?:    )+)(\\d+ \\d+ \\d+ x*)\n {38}\\1\\2\n\n {38}\\1\\2\n"_s);
        const QString text = QString::fromUtf8(log());
        QSet<QString> found;
        int at = text.indexOf("\n\n"_s) + 2;
        for (;;) {
            const auto match = record.match(text, at, QRegularExpression::NormalMatch,
                                            QRegularExpression::DontCheckSubjectStringMatchOption);
            if (!match.hasMatch())
                break;
            found.insert(match.captured(2));
            at = match.capturedEnd();
        }
        QCOMPARE(text.mid(at, 300), QString());
        QCOMPARE(found.size(), 2 * 8 * records);
    }
};

QTEST_GUILESS_MAIN(TestPressure)
#include "tst_pressure.moc"
