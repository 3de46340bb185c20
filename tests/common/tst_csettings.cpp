// The settings store: values, defaults and ranges; what happens to the file, and when it cannot be had.
#include "common/csettings.h"
#include "tests/support/forked.h"
#include "tests/support/messagecatcher.h"
#include "tests/support/testinstallation.h"

#include <QDir>
#include <QElapsedTimer>
#include <QLockFile>
#include <QSettings>
#include <QtTest>

#include <atomic>
#include <thread>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace TestInstallation;

namespace {

using Number = int (CSettings::*)();
struct Range
{
    const char *group, *name;
    Number getter;
    int byDefault, min, max;
};
constexpr Range ranges[] = {
    {"Details", "maxWritingTime", &CSettings::detailsMaxWritingTime, 5000, 100, 10000},
    {"Details", "transportIpConnectTimeout", &CSettings::detailsTransportIpConnectTimeout, 10000, 500, 60000},
    {"Details", "transportIpThreadStartTimeout", &CSettings::detailsTransportIpThreadStartTimeout, 1000, 100,
     60000},
    {"Details", "transportServerThreadStopTimeout", &CSettings::detailsTransportServerThreadStopTimeout,
     10000, 100, 60000},
    {"Details", "transportIpMaxReconnectTimeout", &CSettings::detailsTransportIpMaxReconnectTimeout, 120, 10,
     3600},
    {"Permissions", "dirPermissions", &CSettings::dirPermissions, 30583, 28945, 30583},
    {"Permissions", "filePermissions", &CSettings::filePermissions, 26214, 24576, 26214},
};

// As QSettings reads it, from a copy: under one name it takes edits in quick succession for none.
QVariant stored(const char *key, const QVariant &otherwise = QVariant())
{
    static int copies = 0;
    const QString copy = path() + "/copy%1"_s.arg(++copies);
    write(copy, settings());
    const QVariant value = QSettings(copy, QSettings::IniFormat).value(QString::fromLatin1(key), otherwise);
    QFile::remove(copy);
    return value;
}

int maxWritingTime()
{
    return CSettings().detailsMaxWritingTime();
}

// In a process of its own: what two reads give and say, and what the file holds afterwards.
QString reads(const std::function<void()> &prepare)
{
    clean();
    QDir().mkpath(QFileInfo(settingsPath()).path());
    prepare();
    return Forked::text([] {
        MessageCatcher messages;
        const int first = maxWritingTime();
        const QString said = messages.takeAll();
        const int second = maxWritingTime();
        const QString held = QString::fromUtf8(settings()).replace(QLatin1Char('\n'), QLatin1Char('~'));
        return "%1 %2 %3; %4 %5"_s.arg(first).arg(second).arg(said, messages.takeAll(), held);
    });
}

} // namespace

class TestCSettings : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { clean(); }
    void trouble()
    {
        QCOMPARE(
            reads([] { QDir().mkpath(settingsPath()); }),
            "5000 5000 Не удалось прочитать файл настроек, используются значения по умолчанию \"%1\" \"%2\"|"
            "Не удалось записать файл настроек, значения остаются в памяти \"%1\" \"%2\";  "_s.arg(
                settingsPath(), "Is a directory"_s));
        QCOMPARE(reads([] { writeSettings("garbage\n[Debug]\nmore=1\n"); }),
                 "5000 5000 Файл настроек поврежден, непонятные строки пропущены \"%1\";  "
                 "garbage~[Debug]~more=1~~[Details]~maxWritingTime=5000~"_s.arg(settingsPath()));
        QCOMPARE(reads([] { // by one who has died
                     const pid_t dead = ::fork();
                     if (dead == 0)
                         ::_exit(0);
                     ::waitpid(dead, nullptr, 0);
                     write(settingsPath() + ".lock"_s,
                           QByteArray::number(dead) + "\nx\n" + QSysInfo::machineHostName().toUtf8() + '\n');
                 }),
                 "5000 5000 ;  [Details]~maxWritingTime=5000~"_s);

        QCOMPARE(reads([] {
                     write(path() + "/data/0"_s, "in the way"); // no level 0
                     writeSettings("[Details]\nmaxWritingTime=1\n");
                 }).section(QLatin1Char(';'), 1),
                 "  [Details]~maxWritingTime=1~"_s);
    }

    void aHeldLockIsWaitedForBriefly()
    {
        QVERIFY(writeSettings("[Debug]\n"));
        QLockFile lock(settingsPath() + ".lock"_s);
        QVERIFY(lock.tryLock(100));
        const QString outcome = Forked::text([] {
            const MessageCatcher messages;
            qint64 slowest = 0;
            CSettings().write("Details/maxWritingTime"_s, 700);
            for (const Range &range : ranges) {
                QElapsedTimer clock;
                clock.start();
                const int value = (CSettings().*range.getter)();
                if (value != (&range == ranges ? 700 : range.byDefault) || maxWritingTime() != 700)
                    return "value"_s;
                slowest = qMax(slowest, clock.elapsed());
            }
            const QByteArray held = settings().trimmed();
            QFile::remove(settingsPath() + ".lock"_s);
            QThread::msleep(1100); // the next try
            maxWritingTime();
            return "%1 %2 %3 "_s.arg(messages.count(QtWarningMsg))
                       .arg(slowest < 300)
                       .arg(settings().count('=')) +
                   QString::fromUtf8(held);
        });
        QCOMPARE(outcome, "1 1 7 [Debug]"_s);
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression("our own lock file"_s)); // it has gone
        lock.unlock();
    }

    void numbersHaveDefaultsAndRanges()
    {
        for (const Range &range : ranges) {
            for (const int value : {range.min - 1, range.min, range.max, range.max + 1}) {
                const QByteArray text = QByteArray("[") + range.group + "]\n" + range.name + '=';
                QVERIFY(writeSettings(text + QByteArray::number(value) + '\n'));
                const int expected = value < range.min || value > range.max ? range.byDefault : value;
                QCOMPARE((CSettings().*range.getter)(), expected);
                QCOMPARE(settings(), text + QByteArray::number(expected) + '\n');
            }
        }
    }

    // What QSettings makes of a text is right by definition.
    void textsBecomeValues()
    {
        const char *const texts[] = {
            "[Debug]\njournals=0\n[Details]\nmaxWritingTime=abc\n",
            "[Debug]\njournals=FALSE ; why\n[Details]\nmaxWritingTime=\" 700 \"\n",
            "[Debug]\njournals=\n[Details]\nmaxWritingTime=700, 800\n",
            "[Debug]\njournals=true, true\n[Details]\nmaxWritingTime=7\\\n00\n",
            "\r\n[Debug]\r\n journals = \"fal\"\"se\" \r\n[Details]\r\nmaxWritingTime=4294967996\r\n",
            "[Debug]\njournals=true\njournals=no\n[Details]\nmaxWritingTime=600\n[X]\n[Details]"
            "\nmaxWritingTime="
            "\\x37\\60\\x30\n",
            "[debug]\njournals=false\n[Details]\nMaxWritingTime=600\n",
            "[Debug]\njourn%61ls=@@x\n[Details]\nmaxWritingTime=@ByteArray(600)\n",
            "journals=false\nDetails\\maxWritingTime=600\n[Details]\nx\\maxWritingTime=600\n",
            "\xef\xbb\xbf[Debug]\njournals=@Invalid()\n[Details]\nmaxWritingTime=600.5\n",
        };
        for (const char *text : texts) {
            QVERIFY(writeSettings(text));
            const bool journals = stored("Debug/journals", true).toBool();
            const int found = stored("Details/maxWritingTime", 5000).toInt();
            const int time = found >= 100 && found <= 10000 ? found : 5000;
            QVERIFY2(CSettings().debugJournals() == journals && maxWritingTime() == time, text);
            QVERIFY2(stored("Details/maxWritingTime").toInt() == time &&
                         stored("Debug/journals").toBool() == journals,
                     text);
        }
    }

    void changesKeepTheRest()
    {
        const char *const texts[][2] = {
            // before                             after Debug/all = true
            {"", "[Debug]\nall=true\n"},
            {"; mine\n[X]\ny=1 ;z", "; mine\n[X]\ny=1 ;z\n\n[Debug]\nall=true\n"},
            {"[Debug]\nx=1\n\n; about Z\n[Z]\n", "[Debug]\nx=1\nall=true\n\n; about Z\n[Z]\n"},
            {"[Debug]\nall=1\nall = 0 ;no\n", "[Debug]\nall=1\nall =true;no\n"},
            {"[Debug]\r\nx=1\r\n[Y]\r\n", "[Debug]\r\nx=1\r\nall=true\n[Y]\r\n"},
            {"what\n[Debug\n", "what\n[Debug\nall=true\n"},
            {"k=1\n[Debug]\nx=\"1\n", "[Debug]\nall=true\n\n[General]\nk=1\n[Debug]\nx=\"1\n"},
            {"[Debug]\nall=\"\nx=1\n", "[Debug]\nall=true\nx=1\n"},
        };
        for (const auto &text : texts) {
            CIniText changed{QByteArray(text[0])};
            QVERIFY(changed.set("Debug/all"_s, true));
            QCOMPARE(changed.text(), QByteArray(text[1]));
            QVERIFY(writeSettings(text[1]));
            QCOMPARE(stored("Debug/all").toString(), "true"_s);
        }
    }

    void theFirstRunMakesTheFile()
    {
        ::umask(077);
        const bool isOn = CSettings().debugTransportTasks();
        ::umask(022);
        QVERIFY(isOn);
        QCOMPARE(settings(), QByteArray("[Debug]\ntransportTasks=true\n"));
        const QDir directory = QFileInfo(settingsPath()).dir();
        QCOMPARE(rights(directory.path()), 0x7077);
        QCOMPARE(rights(settingsPath()), 0x6066);
        QCOMPARE(directory.entryList(QDir::Files).size(), 1); // no lock, no ".new"
        const QString text = "@ж \"q\", b"_s;
        CSettings().write("Own/text"_s, text);
        QCOMPARE(stored("Own/text").toString(), text);

        QVERIFY(QFile::remove(settingsPath()));
        MessageCatcher messages;
        maxWritingTime();
        QVERIFY(messages.takeAll().startsWith(
            "Не удалось изменить права доступа файла настроек \"%1\" \"No such file or directory\""_s.arg(
                settingsPath())));
    }

    // Edits of equal length in the same tick of the clock: in place, and by a new file.
    void everyEditIsSeen()
    {
        const QString other = settingsPath() + ".edited"_s;
        for (int value = 1000; value < 1200; ++value) {
            const bool isNew = value % 2 == 0;
            QVERIFY(write(isNew ? other : settingsPath(),
                          "[Details]\nmaxWritingTime=" + QByteArray::number(value) + '\n'));
            QVERIFY(!isNew || ::rename(QFile::encodeName(other).constData(),
                                       QFile::encodeName(settingsPath()).constData()) == 0);
            QCOMPARE(maxWritingTime(), value);
        }
    }

    // The same while threads read all the time, in every way to reach the file, each by bytes in place first.
    void everyEditIsSeenByAllAtOnce()
    {
        QVERIFY(writeSettings("[Details]\nmaxWritingTime=1000\n"));
        const QString outcome = Forked::text([] {
            std::atomic<int> newest{1000};
            std::atomic<int> late{0};
            const auto readAlways = [&] {
                while (newest < 1020) {
                    const int known = newest;
                    late += maxWritingTime() < known ? 1 : 0;
                }
            };
            std::thread readers[] = {std::thread(readAlways), std::thread(readAlways)};
            const QByteArray name = QFile::encodeName(settingsPath());
            const QByteArray elsewhere = QFile::encodeName(path()) + "/elsewhere";
            const QByteArray changed = name + ".changed";
            const auto change = [&](bool done) {
                late += done && ::rename(changed.constData(), name.constData()) == 0 ? 0 : 100;
            };
            for (int value = 1001; value <= 1020; ++value) {
                QThread::msleep(30); // the file is no fresh one any more
                const QByteArray text = "[Details]\nmaxWritingTime=" + QByteArray::number(value) + '\n';
                if (value % 4 == 0) { // a new file
                    change(write(QFile::decodeName(changed), text));
                } else if (value % 4 == 1) { // another name of it
                    ::unlink(elsewhere.constData());
                    late += ::link(name.constData(), elsewhere.constData()) == 0 ? 0 : 100;
                } else if (value % 4 == 3) { // a link to it
                    change(::symlink(elsewhere.constData(), changed.constData()) == 0);
                }
                QFile file(QFile::decodeName(value % 2 == 0 ? name : elsewhere));
                late += file.open(QIODevice::ReadWrite) && file.write(text) == text.size() ? 0 : 100;
                file.close();
                newest = value;
                late += maxWritingTime() < value ? 1 : 0;
            }
            for (std::thread &reader : readers)
                reader.join();
            return QString::number(late);
        });
        QCOMPARE(outcome, "0"_s);
    }

    void anEditBeatsADefault()
    {
        QVERIFY(writeSettings("[Details]\nmaxWritingTime=1\n"));
        {
            CSettings facade;
            QCOMPARE(facade.detailsMaxWritingTime(), 5000);
            QVERIFY(writeSettings("[Details]\nmaxWritingTime=700\n"));
        }
        QCOMPARE(settings(), QByteArray("[Details]\nmaxWritingTime=700\n"));
        QCOMPARE(maxWritingTime(), 700);
    }
};

QTEST_GUILESS_MAIN(TestCSettings)
#include "tst_csettings.moc"
