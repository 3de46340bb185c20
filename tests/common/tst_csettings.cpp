// The settings store: values, defaults and ranges; what happens to the file, and when it cannot be had.
#include "common/csettings.h"
#include "common/logger.h"
#include "tests/support/forked.h"
#include "tests/support/messagecatcher.h"
#include "tests/support/testinstallation.h"

#include <QDir>
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

int valueOf(const SettingsKey &key)
{
    CSettings settings;
    return key.flag != nullptr ? int((settings.*key.flag)()) : (settings.*key.number)();
}

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

// In a process of its own: what two reads give and say, the second when a failed write is tried again, and
// what the file holds afterwards.
QString reads(const std::function<void()> &prepare)
{
    clean();
    QDir().mkpath(QFileInfo(settingsPath()).path());
    prepare();
    return Forked::text([] {
        gCSettingsSettings = nullptr; // as at a start
        MessageCatcher messages;
        const int first = maxWritingTime();
        const QString said = messages.takeAll();
        const bool isTriedAgain = gCSettingsSettings->settings.isAnyPending();
        if (isTriedAgain)
            QThread::msleep(1100);
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
        QCOMPARE(reads([] { // the directory cannot be made
                     QDir().rmdir(path() + "/settings"_s);
                     write(path() + "/settings"_s, "in the way");
                 }),
                 "5000 5000 Не удалось изменить права доступа каталога с настройками \"%1/settings\" \"Not a "
                 "directory\"|Не удалось изменить права доступа файла настроек \"%1/settings/settings.ini\" "
                 "\"No such file or directory\";  "_s.arg(path()));
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

    // Of a lock that is held.
    void othersAreWaitedForBriefly()
    {
        QVERIFY(writeSettings("[Debug]\n"));
        QLockFile lock(settingsPath() + ".lock"_s);
        QVERIFY(lock.tryLock(100));
        const QString outcome = Forked::text([] {
            gCSettingsSettings = nullptr; // as at a start
            const MessageCatcher messages;
            CSettings().write("Details/maxWritingTime"_s, 700);
            int bad = maxWritingTime() == 700 ? 0 : 1;
            for (const SettingsKey &key : settingsKeys)
                bad +=
                    valueOf(key) == (key.number == &CSettings::detailsMaxWritingTime ? 700 : key.defaultValue)
                        ? 0
                        : 1;
            const QByteArray held = settings().trimmed();
            QFile::remove(settingsPath() + ".lock"_s);
            QThread::msleep(1100); // the next try
            maxWritingTime();
            return "%1 wrong, %2 warnings, %3 keys, "_s.arg(bad)
                       .arg(messages.count(QtWarningMsg))
                       .arg(settings().count('=')) +
                   QString::fromUtf8(held);
        });
        QCOMPARE(outcome, "0 wrong, 1 warnings, 28 keys, [Debug]"_s);
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression("our own lock file"_s)); // it has gone
        lock.unlock();
    }

    void theTableIsTheDocuments()
    {
        const QRegularExpression row(
            "^\\| `((?:Debug|Details|Permissions)/\\w+)` \\| (\\w+) \\|(?: (\\d+) to (\\d+) \\|)?"_s,
            QRegularExpression::MultilineOption);
        auto rows = row.globalMatch(QString::fromUtf8(read(QStringLiteral(DOCUMENT_FILE))));
        for (const SettingsKey &key : settingsKeys) {
            QVERIFY2(rows.hasNext(), key.name);
            const QRegularExpressionMatch found = rows.next();
            QCOMPARE(found.captured(1), QString::fromLatin1(key.name));
            QCOMPARE(found.captured(2), key.flag != nullptr ? QVariant(key.defaultValue != 0).toString()
                                                            : QString::number(key.defaultValue));
            QCOMPARE(found.captured(3).toInt(), key.flag != nullptr ? 0 : key.min);
            QCOMPARE(found.captured(4).toInt(), key.flag != nullptr ? 0 : key.max);
        }
        QVERIFY(!rows.hasNext());
    }

    void valuesHaveDefaultsAndRanges()
    {
        for (const SettingsKey &key : settingsKeys) {
            const QString name = QString::fromLatin1(key.name);
            const bool isFlag = key.flag != nullptr;
            for (const int value : {key.min - 1, key.min, key.max, key.max + 1}) {
                const QString text = "[%1]\n%2="_s.arg(name.section(QLatin1Char('/'), 0, 0),
                                                       name.section(QLatin1Char('/'), 1));
                QVERIFY(writeSettings((text + QString::number(value)).toUtf8() + '\n'));
                const bool isTaken = isFlag || (value >= key.min && value <= key.max);
                const int expected = isTaken ? value : key.defaultValue;
                QCOMPARE(valueOf(key), isFlag ? int(value != 0) : expected);
                QCOMPARE(settings(), (text + QString::number(expected)).toUtf8() + '\n');
            }
            QVERIFY(writeSettings(""));
            QCOMPARE(valueOf(key), key.defaultValue);
            QCOMPARE(stored(key.name).toString(),
                     isFlag ? QVariant(key.defaultValue != 0).toString() : QString::number(key.defaultValue));
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
            QVERIFY(changed.set("Debug/all"_s, {"true"_s}));
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

        QVERIFY(QFile::remove(settingsPath()));
        MessageCatcher messages;
        maxWritingTime();
        QVERIFY(messages.takeAll().startsWith(
            "Не удалось изменить права доступа файла настроек \"%1\" \"No such file or directory\""_s.arg(
                settingsPath())));
    }

    // What QSettings writes and reads is right by definition.
    void writesWhatQSettingsDoes()
    {
        const QByteArray bytes("a\0;\xff@\n", 6);
        const QVariant values[] = {"@ж \"q\", b"_s,
                                   " \t;=\\ \x01"
                                   "1f\x7f"_s,
                                   QString(QChar(0)) + "7"_s,
                                   QString(),
                                   bytes,
                                   QStringList{},
                                   QStringList{"one"_s},
                                   QStringList{""_s, "@x"_s, "a, b"_s},
                                   QVariantList{1, bytes, "@"_s},
                                   QVariantList{true},
                                   QVariant(),
                                   -7,
                                   0.1,
                                   Q_UINT64_C(18446744073709551615),
                                   QDate(2024, 2, 29),
                                   QDateTime(QDate(2024, 2, 29), QTime(1, 2, 3, 4), Qt::UTC),
                                   QVariantMap{{"k"_s, QVariantList{1, "x"_s}}}};
        const MessageCatcher messages;
        const QString other = path() + "/settings/other.ini"_s;
        for (const QVariant &value : values) {
            clean();
            CSettings().write("/Own//va lue/"_s, value);
            {
                QSettings qt(other, QSettings::IniFormat);
                qt.setValue("/Own//va lue/"_s, value);
            }
            QCOMPARE(settings(), read(other));
            QCOMPARE(gCSettingsSettings->settings.value("Own/va lue"_s), stored("Own/va lue"));
            QVERIFY(gCSettingsSettings->settings.contains("Own/va lue"_s));
        }
    }

    void refusesWhatCannotBeWritten()
    {
        QVERIFY(writeSettings("[Own]\nvalue=1\n"));
        const QString said = "Значение нельзя записать в файл настроек, остается прежнее \"%1\""_s;
        const QVariant object = QVariant::fromValue<QObject *>(this);
        const QVariant tooLong = QString(5 * 1024 * 1024, QLatin1Char('x'));
        for (const QVariant &value : {object, QVariant(QVariantList{1, object}), tooLong}) {
            MessageCatcher messages;
            CSettings().write("Own/value"_s, value);
            QVERIFY(messages.takeAll().endsWith(said.arg("Own/value"_s)));
            QVERIFY(!CSettings().store({{"Own/value"_s, value}, {"Own/other"_s, 1}}).isNull());
            messages.takeAll();
            CSettings().write("/"_s, 1);
            QCOMPARE(messages.takeAll(), said.arg("/"_s));
            QCOMPARE(settings(), QByteArray("[Own]\nvalue=1\n"));
            QCOMPARE(gCSettingsSettings->settings.value("Own/value"_s).toInt(), 1);
        }
    }

    // Names and shapes that hosts write.
    void hostsFindTheFields()
    {
        const CSettings facade;
        QVERIFY(facade.pointer == gCSettingsSettings && gCSettingsSettings != nullptr);
        for (const int value : {1, 22}) {
            gCSettingsSettings->settings.setValue("Own/value"_s, value);
            gCSettingsSettings->changed = gCSettingsSettings->writable;
            gCSettingsSettings->sync();
            QCOMPARE(gCSettingsSettings->fileInfo.size(), QFileInfo(settingsPath()).size());
        }
        QCOMPARE(gCSettingsSettings->settings.fileName(), settingsPath());
        QCOMPARE(gCSettingsSettings->settings.value("Own/none"_s, 3).toInt(), 3);
        QVERIFY(!gCSettingsSettings->changed);
        QCOMPARE(gCSettingsSettings->lastModified, QFileInfo(settingsPath()).lastModified());
        QCOMPARE(settings(), QByteArray("[Own]\nvalue=22\n"));

        LoggerData::initDebug(nullptr);
        const QMutexLocker locker(&gDebugData->mutex);
        gDebugData->tabulations.append({QThread::currentThread(), 1});
        QVERIFY(gDebugData == LoggerData::debugData() && gFunctionsDebuging < 0);
        const QMutexLocker trail(&gStackMutex);
        QVERIFY(gStack.isEmpty());
    }

    // Only one of them makes the file.
    void theFirstStartIsSilent()
    {
        SettingsPointer *const before = gCSettingsSettings;
        gCSettingsSettings = nullptr;
        MessageCatcher messages;
        std::atomic<int> ready{0};
        Forked::inThreads(8, [&](int number) {
            ++ready;
            while (ready < 8)
                std::this_thread::yield();
            valueOf(settingsKeys[number]);
        });
        CSettings().debugAll(); // takes along what was left to others
        delete static_cast<SettingsPointer *>(gCSettingsSettings);
        gCSettingsSettings = before;
        QCOMPARE(messages.takeAll(), QString());
        QCOMPARE(settings().count('='), 8);
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
        QCOMPARE(late.load(), 0);
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
