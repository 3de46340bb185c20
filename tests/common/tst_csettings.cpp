// The settings store: values, defaults and ranges; what happens to the file, and when it cannot be had.
#include "common/csettings.h"
#include "common/directorylayout.h"
#include "common/initext.h"
#include "tests/support/forked.h"
#include "tests/support/messagecatcher.h"
#include "tests/support/testinstallation.h"

#include <QElapsedTimer>
#include <QLockFile>
#include <QSettings>
#include <QtTest>

#include <csignal>
#include <functional>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace TestInstallation;

Q_DECLARE_METATYPE(std::function<QString()>)

namespace {

struct Number
{
    const char *key;
    int (CSettings::*getter)();
    int byDefault, min, max;
};
constexpr Number numbers[] = {
    {"Details/maxWritingTime", &CSettings::detailsMaxWritingTime, 5000, 100, 10000},
    {"Details/transportIpConnectTimeout", &CSettings::detailsTransportIpConnectTimeout, 10000, 500, 60000},
    {"Details/transportIpThreadStartTimeout", &CSettings::detailsTransportIpThreadStartTimeout, 1000, 100,
     60000},
    {"Details/transportServerThreadStopTimeout", &CSettings::detailsTransportServerThreadStopTimeout, 10000,
     100, 60000},
    {"Details/transportIpMaxReconnectTimeout", &CSettings::detailsTransportIpMaxReconnectTimeout, 120, 10,
     3600},
    {"Permissions/dirPermissions", &CSettings::dirPermissions, 30583, 28945, 30583},
    {"Permissions/filePermissions", &CSettings::filePermissions, 26214, 24576, 26214},
};

// As QSettings reads it from a copy: under one name it takes edits in quick succession for none.
QVariant stored(const char *key, const QVariant &otherwise = QVariant())
{
    static int copies = 0;
    const QString copy = path() + QStringLiteral("/copy%1").arg(++copies);
    write(copy, settings());
    const QVariant value = QSettings(copy, QSettings::IniFormat).value(QString::fromLatin1(key), otherwise);
    QFile::remove(copy);
    return value;
}

int maxWritingTime()
{
    return CSettings().detailsMaxWritingTime();
}

unsigned modeOf(const QString &name)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(name).constData(), &status) == 0 ? status.st_mode & 07777u : 0;
}

// "value; messages", of as many reads, and what a file holds afterwards.
QString reads(int count, const QString &file = QString())
{
    QString result;
    for (int i = 0; i < count; ++i) {
        MessageCatcher messages;
        const QString value = QString::number(maxWritingTime());
        result += value + QStringLiteral("; ") + messages.takeAll().join(QStringLiteral(" | "));
    }
    return result + (file.isEmpty() ? QString() : QString::fromUtf8(read(file)));
}

} // namespace

class TestCSettings : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { clean(); }
    // In processes of their own, before this one has a store:
    void trouble_data();
    void trouble();
    void withoutLevel0NothingIsWritten();
    void aHeldLockIsWaitedForBriefly();

    void numbersHaveDefaultsAndRanges();
    void textsBecomeValues_data();
    void textsBecomeValues();
    void changesKeepTheRest_data();
    void changesKeepTheRest();
    void theFirstRunMakesTheFile();
    void everyEditIsSeen();
    void anEditBeatsADefault();
};

void TestCSettings::numbersHaveDefaultsAndRanges()
{
    for (const Number &number : numbers) {
        for (const int value : {number.min - 1, number.min, number.max, number.max + 1}) {
            const QByteArray key(number.key);
            QVERIFY(writeSettings('[' + key.left(key.indexOf('/')) + "]\n" + key.mid(key.indexOf('/') + 1) +
                                  '=' + QByteArray::number(value) + '\n'));
            const int expected = value < number.min || value > number.max ? number.byDefault : value;
            QCOMPARE((CSettings().*number.getter)(), expected);
            QCOMPARE(stored(number.key).toInt(), expected);
        }
    }
}

void TestCSettings::textsBecomeValues_data()
{
    QTest::addColumn<QByteArray>("text");
    const char *texts[] = {
        "[Debug]\njournals=0\n[Details]\nmaxWritingTime=abc\n",
        "[Debug]\njournals=FALSE ; why\n[Details]\nmaxWritingTime=\" 700 \"\n",
        "[Debug]\njournals=\n[Details]\nmaxWritingTime=700, 800\n",
        "[Debug]\njournals=true, true\n[Details]\nmaxWritingTime=7\\\n00\n",
        "[Debug]\njournals=nonsense\n[Details]\nmaxWritingTime=0700\n",
        "\r\n[Debug]\r\n journals = \"fal\"\"se\" \r\n[Details]\r\nmaxWritingTime=4294967996\r\n",
        "[Debug]\njournals=true\njournals=false\n[Details]\nmaxWritingTime=600\n[Debug]\n[Details]"
        "\nmaxWritingTime=\\x37\\60\\x30\n",
        "[debug]\njournals=false\n[Details]\nMaxWritingTime=600\n",
        "[Debug]\njourn%61ls=@@x\n[Details]\nmaxWritingTime=@ByteArray(600)\n",
        "journals=false\nDetails\\maxWritingTime=600\n[Details]\nx\\maxWritingTime=600\n",
        "\xef\xbb\xbf[Debug]\njournals=@Invalid()\n[Details]\nmaxWritingTime=600.5\n",
    };
    for (const char *text : texts)
        QTest::newRow(text) << QByteArray(text);
}

// What QSettings makes of a text is right by definition.
void TestCSettings::textsBecomeValues()
{
    QFETCH(QByteArray, text);
    QVERIFY(writeSettings(text));
    const bool journals = stored("Debug/journals", true).toBool();
    const int found = stored("Details/maxWritingTime", 5000).toInt();
    const int time = found >= 100 && found <= 10000 ? found : 5000;

    QCOMPARE(CSettings().debugJournals(), journals);
    QCOMPARE(maxWritingTime(), time);
    QCOMPARE(stored("Details/maxWritingTime").toInt(), time);
    QCOMPARE(stored("Debug/journals").toBool(), journals);
}

void TestCSettings::changesKeepTheRest_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("after"); // Debug/all = true
    const auto row = [](const char *name, const char *before, const char *after) {
        QTest::newRow(name) << QByteArray(before) << QByteArray(after);
    };
    row("empty", "", "[Debug]\nall=true\n");
    row("a comment and a stranger", "; mine\n[X]\ny=1 ;z", "; mine\n[X]\ny=1 ;z\n\n[Debug]\nall=true\n");
    row("last of its group", "[Debug]\nx=1\n\n; about Z\n[Z]\n",
        "[Debug]\nx=1\nall=true\n\n; about Z\n[Z]\n");
    row("in place, last wins", "[Debug]\nall=1\nall = 0 ;no\n", "[Debug]\nall=1\nall =true;no\n");
    row("Windows", "[Debug]\r\nx=1\r\n[Y]\r\n", "[Debug]\r\nx=1\r\nall=true\n[Y]\r\n");
    row("garbage", "what\n[Debug\n", "what\n[Debug\nall=true\n");
    row("swallowed", "k=1\n[Debug]\nx=\"1\n", "[Debug]\nall=true\n\n[General]\nk=1\n[Debug]\nx=\"1\n");
    row("an open quote of its own", "[Debug]\nall=\"\nx=1\n", "[Debug]\nall=true\nx=1\n");
}

void TestCSettings::changesKeepTheRest()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, after);
    CIniText text(before);
    QVERIFY(text.set(QStringLiteral("Debug/all"), true));
    QCOMPARE(text.text(), after);
    QVERIFY(writeSettings(after));
    QCOMPARE(stored("Debug/all").toString(), QStringLiteral("true"));
}

void TestCSettings::theFirstRunMakesTheFile()
{
    ::umask(077);
    const bool isOn = CSettings().debugTransportTasks();
    ::umask(022);
    QVERIFY(isOn);
    QCOMPARE(settings(), QByteArray("[Debug]\ntransportTasks=true\n"));
    QCOMPARE(modeOf(path() + QStringLiteral("/settings")), 0777u);
    QCOMPARE(modeOf(settingsPath()), 0666u);
    QCOMPARE(QDir(path() + QStringLiteral("/settings")).entryList(QDir::Files).size(),
             1); // no lock, no ".new"
    {
        CSettings facade;
        facade.write(QStringLiteral("Own/text"), QStringLiteral("@ж \"q\", b"));
    }
    QCOMPARE(stored("Own/text").toString(), QStringLiteral("@ж \"q\", b"));

    QVERIFY(QFile::remove(settingsPath()));
    MessageCatcher messages;
    const CSettings facade;
    QCOMPARE(messages.takeAll(),
             QStringList{
                 QStringLiteral(
                     "Не удалось изменить права доступа файла настроек \"%1\" \"No such file or directory\"")
                     .arg(settingsPath())});
}

void TestCSettings::withoutLevel0NothingIsWritten()
{
    QVERIFY(write(path() + QStringLiteral("/data/0"), "in the way"));
    const QString absent = Forked::text([] { return reads(1, settingsPath()); });
    QCOMPARE(absent.left(5), QStringLiteral("5000;"));
    QVERIFY(!QFile::exists(settingsPath()));
    QVERIFY(writeSettings("[Details]\nmaxWritingTime=1\n"));
    QCOMPARE(Forked::text([] { return reads(1); }).left(5), QStringLiteral("5000;"));
    QCOMPARE(settings(), QByteArray("[Details]\nmaxWritingTime=1\n"));
}

// Edits of equal length in the same tick of the clock: in place, and by a new file.
void TestCSettings::everyEditIsSeen()
{
    for (int round = 0; round < 200; ++round) {
        const int value = 1000 + round;
        const QByteArray text = "[Details]\nmaxWritingTime=" + QByteArray::number(value) + '\n';
        const QString other = settingsPath() + QStringLiteral(".edited");
        QVERIFY(round % 2 == 0 ? writeSettings(text) : write(other, text));
        if (round % 2 != 0)
            QCOMPARE(
                ::rename(QFile::encodeName(other).constData(), QFile::encodeName(settingsPath()).constData()),
                0);
        QCOMPARE(maxWritingTime(), value);
    }
}

void TestCSettings::anEditBeatsADefault()
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

void TestCSettings::trouble_data()
{
    QTest::addColumn<std::function<QString()>>("work");
    QTest::addColumn<QString>("outcome");
    const auto row = [](const char *name, std::function<QString()> work, const char *outcome) {
        QTest::newRow(name) << work
                            << QString::fromUtf8(outcome).replace(QLatin1String("%1"), settingsPath());
    };
    const char *unread =
        "5000; Не удалось прочитать файл настроек, используются значения по умолчанию \"%1\" \"Invalid "
        "argument\""
        " | Не удалось записать файл настроек, значения остаются в памяти \"%1\" \"Invalid argument\"5000; ";
    row(
        "a directory",
        [] {
            QDir().mkpath(settingsPath());
            return reads(2);
        },
        unread);
    row(
        "a FIFO",
        [] {
            QDir().mkpath(QFileInfo(settingsPath()).path());
            return ::mkfifo(QFile::encodeName(settingsPath()).constData(), 0666) == 0 ? reads(2) : QString();
        },
        unread);
    row(
        "somebody else's link",
        [] {
            const QString target = path() + QStringLiteral("/data/target");
            write(target, "[Details]\nmaxWritingTime=700\n");
            QDir().mkpath(QFileInfo(settingsPath()).path());
            QFile::link(target, settingsPath());
            if (::lchown(QFile::encodeName(settingsPath()).constData(), 65534, 65534) != 0)
                return QString();
            return reads(1, target);
        },
        "5000; Не удалось прочитать файл настроек, используются значения по умолчанию \"%1\" \"Operation not "
        "permitted\""
        " | Не удалось записать файл настроек, значения остаются в памяти \"%1\" \"Operation not permitted\""
        "[Details]\nmaxWritingTime=700\n");
    row(
        "a link of our own",
        [] {
            const QString target = path() + QStringLiteral("/data/target");
            write(target, "[Details]\n");
            QDir().mkpath(QFileInfo(settingsPath()).path());
            QFile::link(target, settingsPath());
            const QString outcome = reads(1, target);
            return outcome + QFileInfo(settingsPath()).symLinkTarget().right(11);
        },
        "5000; [Details]\nmaxWritingTime=5000\ndata/target");
    row(
        "garbage",
        [] {
            writeSettings("garbage\n[Debug]\nmore=1\n");
            return reads(2, settingsPath());
        },
        "5000; Файл настроек поврежден, непонятные строки пропущены \"%1\"5000; "
        "garbage\n[Debug]\nmore=1\n\n[Details]\nmaxWritingTime=5000\n");
    row(
        "a dead lock",
        [] {
            const int dead = ::fork();
            if (dead == 0)
                ::_exit(0);
            while (::kill(dead, 0) == 0 && ::waitpid(dead, nullptr, 0) > 0) {
            }
            write(settingsPath() + QStringLiteral(".lock"),
                  QByteArray::number(dead) + "\nx\n" + QSysInfo::machineHostName().toUtf8() + "\n");
            return reads(1, settingsPath());
        },
        "5000; [Details]\nmaxWritingTime=5000\n");
}

void TestCSettings::trouble()
{
    QFETCH(std::function<QString()>, work);
    QFETCH(QString, outcome);
    if (::getuid() != 0 && QLatin1String(QTest::currentDataTag()) == QLatin1String("somebody else's link"))
        QSKIP("needs another user");
    QCOMPARE(Forked::text(work), outcome);
}

void TestCSettings::aHeldLockIsWaitedForBriefly()
{
    QVERIFY(writeSettings("[Debug]\n"));
    QLockFile lock(settingsPath() + QStringLiteral(".lock"));
    QVERIFY(lock.tryLock(100));
    const QString outcome = Forked::text([] {
        MessageCatcher messages;
        qint64 slowest = 0;
        for (const Number &number : numbers) {
            QElapsedTimer clock;
            clock.start();
            if ((CSettings().*number.getter)() != number.byDefault || maxWritingTime() != 5000)
                return QStringLiteral("value");
            slowest = qMax(slowest, clock.elapsed());
        }
        const QString held = QString::fromUtf8(settings());
        QFile::remove(settingsPath() + QStringLiteral(".lock"));
        QThread::msleep(1100);
        maxWritingTime();
        return QStringLiteral("%1 %2 %3 %4")
            .arg(QString::number(messages.count(QtWarningMsg)), held.trimmed(),
                 QString::number(settings().count('=')),
                 slowest < 300 ? QStringLiteral("quick") : QString::number(slowest));
    });
    QCOMPARE(outcome, QStringLiteral("1 [Debug] 7 quick"));
    QTest::ignoreMessage(QtWarningMsg,
                         QRegularExpression(QStringLiteral("our own lock file"))); // which is gone
    lock.unlock();
}

QTEST_GUILESS_MAIN(TestCSettings)
#include "tst_csettings.moc"
