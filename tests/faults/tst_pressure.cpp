// Settings and log while many write at once, editors meddle, and the disk is full.
#include "common/csettings.h"
#include "common/logwriter.h"
#include "tests/support/forked.h"
#include "tests/support/messagecatcher.h"
#include "tests/support/testinstallation.h"

#include <QDir>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QSettings>
#include <QtTest>

#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace TestInstallation;

namespace {

const bool isLong = qEnvironmentVariableIsSet("IPCHANNEL_LONG");
constexpr int slowestMs = 300; // of reading a setting
constexpr uid_t stranger = 65534;

constexpr int (CSettings::*getters[])() = {&CSettings::detailsMaxWritingTime,
                                           &CSettings::detailsTransportIpConnectTimeout,
                                           &CSettings::detailsTransportIpThreadStartTimeout,
                                           &CSettings::detailsTransportServerThreadStopTimeout,
                                           &CSettings::detailsTransportIpMaxReconnectTimeout,
                                           &CSettings::dirPermissions,
                                           &CSettings::filePermissions};
const QList<int> expected[] = {{5000, 700}, {10000}, {1000}, {10000}, {120}, {30583}, {26214}};

// Runs @a work in as many processes at once as it is given numbers; the results that are not 0.
QList<int> inProcesses(
    int count, const std::function<int(int)> &work, const std::function<void()> &meanwhile = [] {})
{
    std::vector<pid_t> children;
    for (int number = 0; number < count; ++number) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(120);
            const MessageCatcher messages; // what is said about the troubles
            ::_exit(work(number));
        }
        children.push_back(child);
    }
    meanwhile();
    QList<int> failures;
    for (const pid_t child : children) {
        int status = -1;
        if (::waitpid(child, &status, 0) != child || status != 0)
            failures += WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    return failures;
}

// Reads every number for a while. @return whether all were right
bool readAll(int ms, std::atomic<qint64> *slowest = nullptr)
{
    QElapsedTimer whole;
    whole.start();
    do {
        for (size_t i = 0; i < std::size(getters); ++i) {
            QElapsedTimer clock;
            clock.start();
            if (!expected[i].contains((CSettings().*getters[i])()))
                return false;
            if (slowest != nullptr)
                *slowest = qMax(slowest->load(), clock.elapsed());
        }
    } while (whole.elapsed() < ms);
    return true;
}

// How long the machine lets nobody run, at worst.
qint64 worstStall(int ms)
{
    QElapsedTimer whole;
    qint64 worst = 0;
    for (whole.start(); whole.elapsed() < ms;) {
        QElapsedTimer clock;
        clock.start();
        QThread::msleep(1);
        worst = qMax(worst, clock.elapsed());
    }
    return worst;
}

// Somebody else, who holds the lock for a while and lives on.
void holdLock(int ms)
{
    Forked::run(
        [ms] {
            const QByteArray name = QFile::encodeName(settingsPath() + QStringLiteral(".lock"));
            const int lock = ::open(name.constData(), O_RDWR | O_CREAT | O_EXCL, 0644);
            const QByteArray text =
                QByteArray::number(::getpid()) + "\nx\n" + QSysInfo::machineHostName().toUtf8() + '\n';
            if (lock < 0 || ::flock(lock, LOCK_EX | LOCK_NB) != 0 ||
                ::write(lock, text.constData(), size_t(text.size())) < 0)
                return 1;
            QThread::msleep(static_cast<unsigned long>(ms));
            return ::unlink(name.constData());
        },
        stranger);
}

void meddle(int ms)
{
    const QByteArray text = "; mine\n[Foreign]\nkey=1\n[Details]\nmaxWritingTime=700\n";
    const QString name = settingsPath();
    QElapsedTimer clock;
    clock.start();
    for (int round = 0; clock.elapsed() < ms; ++round) {
        switch (round % 5) {
        case 0: // in place, slowly
            if (QFile file(name); file.open(QIODevice::WriteOnly)) {
                QThread::usleep(300);
                file.write(text);
            }
            break;
        case 1: // in one go
            write(name + QStringLiteral(".edited"), text);
            ::rename(QFile::encodeName(name + QStringLiteral(".edited")).constData(),
                     QFile::encodeName(name).constData());
            break;
        case 2:
            QFile::remove(name);
            break;
        case 3:
            write(name, text + "garbage\n");
            break;
        default:
            holdLock(250);
        }
        QThread::msleep(3);
    }
    write(name, text);
}

} // namespace

class TestPressure : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { clean(); }
    void writersOfSettingsLoseNothing();
    void settingsStayUsable();
    void recordsStayWhole();
    void aFullDiskPasses();
};

// Four processes of ours and one that uses QSettings, each with keys of its own.
void TestPressure::writersOfSettingsLoseNothing()
{
    const int keys = isLong ? 300 : 40;
    QVERIFY(writeSettings("[Foreign]\nkey=1\n"));
    const QList<int> failures = inProcesses(5, [keys](int number) {
        QSettings qt(settingsPath(), QSettings::IniFormat);
        for (int key = 0; key < keys; ++key) {
            const QString name = QStringLiteral("P%1/k%2").arg(number).arg(key);
            if (number < 4)
                CSettings().write(name, key);
            else if (key % 4 == 0)
                qt.setValue(name, key), qt.sync();
            if (number < 4 && !readAll(0))
                return 1;
        }
        QElapsedTimer clock; // what could not be written at once is written later
        for (clock.start(); number < 4 && clock.elapsed() < 20000; QThread::msleep(50)) {
            readAll(0);
            const QSettings stored(settingsPath(), QSettings::IniFormat);
            if (stored.contains(QStringLiteral("P%1/k%2").arg(number).arg(keys - 1)))
                return 0;
        }
        return number < 4 ? 3 : 0;
    });
    QCOMPARE(failures, QList<int>());
    const QSettings result(settingsPath(), QSettings::IniFormat);
    QCOMPARE(result.value(QStringLiteral("Foreign/key")).toInt(), 1);
    QCOMPARE(result.allKeys().size(), 1 + 4 * keys + keys / 4 + int(std::size(getters)));
}

// Four processes, one of them with four threads; editors save, replace, remove and garble the file, and
// somebody else holds its lock.
void TestPressure::settingsStayUsable()
{
    const int ms = isLong ? 60000 : 2000;
    const QString directory = QFileInfo(settingsPath()).path();
    QVERIFY(QDir().mkpath(directory));
    if (!Forked::mountDisk(directory, "size=4m")) // whose syncs take no time
        QSKIP("needs to mount a disk");
    QVERIFY(writeSettings("[Details]\nmaxWritingTime=700\n"));
    const QList<int> failures = inProcesses(
        4,
        [ms](int number) {
            std::vector<std::thread> threads;
            std::atomic<bool> isRight{true};
            std::atomic<qint64> slowest{0};
            for (int i = 0; i < (number == 0 ? 4 : 1); ++i) {
                threads.emplace_back([&] {
                    if (!readAll(ms + 500, &slowest))
                        isRight = false;
                });
            }
            const qint64 stall = worstStall(ms + 500);
            for (std::thread &thread : threads)
                thread.join();
            QThread::msleep(1100);
            return !isRight || !readAll(0) ? 1 : slowest > slowestMs + stall ? 2 : 0;
        },
        [ms] { meddle(ms); });
    QCOMPARE(failures, QList<int>());

    QCOMPARE(inProcesses(1, [](int) { return readAll(50) ? 0 : 1; }), QList<int>());
    const QSettings result(settingsPath(), QSettings::IniFormat);
    QCOMPARE(result.value(QStringLiteral("Details/maxWritingTime")).toInt(), 700); // the last edit
    QCOMPARE(result.allKeys().size(), 1 + int(std::size(getters)));
    QVERIFY(settings().startsWith("; mine\n"));
}

void TestPressure::recordsStayWhole()
{
    const int records = isLong ? 5000 : 500; // of each of 8 threads in 2 processes
    const QList<int> failures = inProcesses(2, [records](int process) {
        std::vector<std::thread> threads;
        for (int thread = 0; thread < 8; ++thread) {
            threads.emplace_back([=] {
                for (int i = 0; i < records; ++i) {
                    const QString id = QStringLiteral("%1 %2 %3 ").arg(process).arg(thread).arg(i);
                    const QString line = id + QString((i * 37 + thread) % 300, QLatin1Char('x'));
                    debug(QStringLiteral("Test"),
                          line + QLatin1Char('\n') + line + QStringLiteral("\n\n") + line, DebugAlways,
                          DebugFlagFileOnly);
                }
            });
        }
        for (std::thread &thread : threads)
            thread.join();
        return 0;
    });
    QCOMPARE(failures, QList<int>());

    const QRegularExpression record(QStringLiteral(
        "\\G[\\d:.]{12} {22}Test((?:    )+)(\\d+ \\d+ \\d+ x*)\n {38}\\1\\2\n\n {38}\\1\\2\n"));
    const QString text = QString::fromUtf8(log());
    QSet<QString> found;
    int at = text.indexOf(QStringLiteral("\n\n")) + 2;
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

void TestPressure::aFullDiskPasses()
{
    const int ms = isLong ? 2000 : 300;
    QVERIFY(QDir().mkpath(path() + QStringLiteral("/data")));
    const auto work = [ms] {
        if (!Forked::mountDisk(path() + QStringLiteral("/data"), "size=256k"))
            return QStringLiteral("no mount");
        const MessageCatcher messages;
        const auto put = [](const QString &text) {
            debug(QStringLiteral("Test"), text, DebugAlways, DebugFlagFileOnly);
        };
        put(QStringLiteral("before"));
        QFile file(path() + QStringLiteral("/data/filler"));
        file.open(QIODevice::WriteOnly | QIODevice::Unbuffered);
        while (file.write(QByteArray(4096, 'f')) == 4096) {
        }
        std::atomic<qint64> slowest{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] {
                QElapsedTimer whole;
                for (whole.start(); whole.elapsed() < ms;) {
                    QElapsedTimer clock;
                    clock.start();
                    put(QString(900, QLatin1Char('y')));
                    slowest = qMax(slowest.load(), clock.elapsed());
                }
            });
        }
        for (std::thread &thread : threads)
            thread.join();
        file.remove();
        for (int i = 0; i < 100; ++i)
            put(QStringLiteral("after"));
        const auto after = QRegularExpression(QStringLiteral("^[\\d:.]{12} {22}Test(    )+after$"),
                                              QRegularExpression::MultilineOption);
        const auto count = QString::fromUtf8(log()).count(after);
        return QStringLiteral("%1 %2 %3")
            .arg(count)
            .arg(messages.count(QtWarningMsg) > 0)
            .arg(slowest < slowestMs);
    };
    QCOMPARE(Forked::text(work), QStringLiteral("100 1 1"));
}

QTEST_GUILESS_MAIN(TestPressure)
#include "tst_pressure.moc"
