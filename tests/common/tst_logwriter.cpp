// The log writer and the emergency log: what stands in the file, who gets which indentation, and what
// happens when the file cannot be had.
#include "common/csettings.h"
#include "common/logformat.h"
#include "common/logger.h"
#include "tests/support/forked.h"
#include "tests/support/messagecatcher.h"
#include "tests/support/testinstallation.h"

#include <QDate>
#include <QDir>
#include <QRegularExpression>
#include <QThread>
#include <QtTest>

#include <memory>
#include <vector>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace TestInstallation;

namespace {

void put(const char *text, int level = DebugAlways)
{
    debug(QStringLiteral("Test"), QString::fromUtf8(text), static_cast<DebugLevel>(level), DebugFlagFileOnly);
}

QString logPath()
{
    const QDir directory(path() + QStringLiteral("/data/0/log"));
    return directory.absoluteFilePath(directory.entryList(QDir::Files | QDir::Hidden).value(0));
}

// The log without its head and the times and sources of its records: a first line as "1 text", 1 being the
// level of its indentation, a later one as "+1 text".
QString records()
{
    QString text = QString::fromUtf8(log());
    if (text.startsWith(QStringLiteral("Версия 3.0.25.0 release linux edition")))
        text.remove(0, text.indexOf(QStringLiteral("\n\n")) + 2);
    QString result;
    const QRegularExpression pattern(
        QStringLiteral("^(\\d\\d:\\d\\d:\\d\\d\\.\\d{3} [ \\w.]{25}| {38})((?:    )+)(.*)$"));
    for (const QString &line : text.split(QLatin1Char('\n'))) {
        const QRegularExpressionMatch match = pattern.match(line);
        const bool isLater = match.captured(1).trimmed().isEmpty();
        result += !match.hasMatch() ? line
                                    : (isLater ? QStringLiteral("+") : QString()) +
                                          QString::number(match.capturedLength(2) / 4) + QLatin1Char(' ') +
                                          match.captured(3);
        result += QLatin1Char('|');
    }
    return result.chopped(1);
}

QString inThread(const std::function<QString()> &work, QThread **thread = nullptr)
{
    QString result;
    QThread *const made = QThread::create([&] { result = work(); });
    made->start();
    made->wait();
    if (thread != nullptr)
        *thread = made; // so that no other gets its address
    else
        delete made;
    return result;
}

} // namespace

class TestLogWriter : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { clean(); }
    void recordsHaveTheirForm_data();
    void recordsHaveTheirForm();
    void logs_data();
    void logs();
    void theHeadComesFirstAndOnce();
    void bindsOnceAndSharesSlots();
    void aHostsHandlerMayLogAndReadSettings();
    void aKilledThreadLeavesTheLogOpen();
};

void TestLogWriter::recordsHaveTheirForm_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<int>("tab");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("bytes");
    const QByteArray start = "12:04:05.123                CIpChannel";
    const QByteArray later(38, ' ');
    const QString channel = QStringLiteral("CIpChannel");
    QTest::newRow("a line") << channel << 1 << QStringLiteral("Имя %1 %2") << start + "    Имя %1 %2\n";
    QTest::newRow("three lines") << channel << 1 << QStringLiteral("a\n\nb")
                                 << start + "    a\n\n" + later + "    b\n";
    QTest::newRow("a forged start") << channel << 2 << QStringLiteral("\n\n12:00:00.000 x")
                                    << "\n\n" + start + "        12:00:00.000 x\n";
    QTest::newRow("a line feed at the end") << channel << 1 << QStringLiteral("a\n") << start + "    a\n\n";
    QTest::newRow("nothing") << channel << 1 << QString() << QByteArray("\n");
    QTest::newRow("a long source") << QStringLiteral("123456789012345678901234567890") << 1
                                   << QStringLiteral("a")
                                   << QByteArray("12:04:05.123 1234567890123456789012...    a\n");
    QTest::newRow("25 characters") << QStringLiteral("1234567890123456789012345") << 1 << QStringLiteral("a")
                                   << QByteArray("12:04:05.123 1234567890123456789012345    a\n");
    const QChar odd[] = {QLatin1Char('a'), QChar(0),          QLatin1Char('\r'),
                         QChar(0xd800),    QLatin1Char('\n'), QLatin1Char('b')};
    QTest::newRow("odd characters") << channel << 1 << QString(odd, 6)
                                    << start + QByteArray("    a\0\r?\n", 9) + later + "    b\n";
}

void TestLogWriter::recordsHaveTheirForm()
{
    QFETCH(QString, source);
    QFETCH(int, tab);
    QFETCH(QString, text);
    QFETCH(QByteArray, bytes);
    LogFormat::TimeText time;
    std::copy_n("12:04:05.123", time.size(), time.begin());
    QCOMPARE(LogFormat::record(time, source, tab, text), bytes);
}

using Work = std::function<QString()>;
Q_DECLARE_METATYPE(Work)

// Each in a process of its own. The outcome: the log, or what the work returns.
void TestLogWriter::logs_data()
{
    QTest::addColumn<Work>("work");
    QTest::addColumn<QString>("outcome");
    const auto row = [](const char *name, const Work &work, const char *outcome) {
        QTest::newRow(name) << work << QString::fromUtf8(outcome);
    };
    row(
        "by category",
        [] {
            writeSettings("[Debug]\ntransportConnects=false\njournals=true\n");
            for (const int level : {0, 1, 3, 7, 18, 21, 25, -1})
                put(QByteArray::number(level).constData(), level);
            writeSettings("[Debug]\ntransportConnects=true\njournals=false\n");
            put("7 on", 7);
            put("18 off", 18);
            return records();
        },
        "1 0|1 3|1 18|1 21|1 25|1 -1|1 7 on|");
    row(
        "the echo",
        [] {
            MessageCatcher messages;
            debug(QStringLiteral("S"), QStringLiteral("a\n\"b\" ж"), DebugAlways, DebugFlagNone);
            debug(QStringLiteral("S"), QStringLiteral("file"), DebugAlways, DebugFlagFileOnly);
            debug(QStringLiteral("S"), QStringLiteral("off"), DebugIpcData, DebugFlagNone);
            return messages.takeAll().join(QLatin1Char('|'));
        },
        "\"S\" \"a\\n\\\"b\\\" ж\"");
    row(
        "a file taken away",
        [] {
            put("renamed");
            QFile::rename(logPath(), path() + QStringLiteral("/data/away"));
            put("deleted");
            const QString second = records();
            QFile::remove(logPath());
            QDir(QFileInfo(logPath()).path()).removeRecursively();
            put("anew");
            return second + records() +
                   QString::number(read(path() + QStringLiteral("/data/away")).contains("renamed"));
        },
        "1 deleted|1 anew|1");
    row(
        "something in the way",
        [] {
            MessageCatcher messages;
            put("first");
            const QString name = logPath();
            QFile::rename(name, path() + QStringLiteral("/data/target"));
            QFile::link(path() + QStringLiteral("/data/target"), name);
            put("lost");
            QFile::remove(name);
            ::mkfifo(QFile::encodeName(name).constData(), 0666);
            put("lost");
            QFile::remove(name);
            put("last");
            return messages.takeAll().join(QLatin1Char('|')).remove(name) + QLatin1Char('|') + records() +
                   QString::number(read(path() + QStringLiteral("/data/target")).contains("lost"));
        },
        "Ошибка открытия файла для записи: \"\" \"Too many levels of symbolic links\"|"
        "Ошибка открытия файла для записи: \"\" \"No such device or address\"|1 last|0");
    row(
        "no directory",
        [] {
            MessageCatcher messages;
            TestInstallation::write(path() + QStringLiteral("/data/0/log"), "in the way");
            put("lost");
            emergecyDebug(QStringLiteral("lost"));
            QFile::remove(path() + QStringLiteral("/data/0/log"));
            put("found");
            return messages.takeAll().join(QLatin1Char('|')).remove(path()) + QLatin1Char('|') + records();
        },
        "Не удалось создать каталог для записи лога \"/data/0/log\"|"
        "Не удалось создать каталог для записи лога \"/data/0/log\"|1 found|");
    row(
        "a full disk",
        [] {
            MessageCatcher messages;
            put("before");
            const rlim_t size = static_cast<rlim_t>(QFileInfo(logPath()).size());
            rlimit limit = {};
            ::getrlimit(RLIMIT_FSIZE, &limit);
            for (const rlim_t room : {rlim_t(44), rlim_t(0)}) {
                const rlimit small = {size + room, limit.rlim_max};
                ::setrlimit(RLIMIT_FSIZE, &small);
                QThread::msleep(10); // limits are looked at once per tick of the clock
                put("torn\ngone");
            }
            ::setrlimit(RLIMIT_FSIZE, &limit);
            put("after");
            return messages.takeAll().join(QLatin1Char('|')) + QLatin1Char('|') + records();
        },
        "Не удалось записать данные в лог файл. Ошибка записи.  \"File too large\"|"
        "Не удалось записать данные в лог файл. Ошибка записи.  \"File too large\"|"
        "Не удалось записать данные в лог файл. Ошибка записи.  \"File too large\"|1 before|1 to|1 after|");
    row(
        "emergency",
        [] {
            ::umask(077);
            QDir().mkpath(path() + QStringLiteral("/data/0/log"));
            emergecyDebug(QStringLiteral("a\n\nb"));
            const QByteArray line = log();
            put("record");
            emergecyDebug(QStringLiteral("c"));
            const bool isSame =
                QRegularExpression(
                    QStringLiteral("^\\d\\d:\\d\\d:\\d\\d\\.\\d{3} {16}forceDebug {4}a\n\n {4}b\n$"))
                    .match(QString::fromUtf8(line))
                    .hasMatch();
            return QStringLiteral("%1 %2 %3")
                .arg(QString::number(isSame), QString::number(QFileInfo(logPath()).permissions(), 16),
                     QString::number(log().count("forceDebug")));
        },
        "1 6600 2");
}

void TestLogWriter::logs()
{
    QFETCH(Work, work);
    QFETCH(QString, outcome);
    const QString actual = Forked::text(work);
    QVERIFY2(actual == outcome, qPrintable(actual));
}

// Of two processes that begin a log at once one makes it, with its head before every record.
void TestLogWriter::theHeadComesFirstAndOnce()
{
    for (int round = 0; round < 20; ++round) {
        clean();
        const QString second = Forked::text([] {
            const pid_t other = ::fork();
            QCoreApplication::setApplicationName(QStringLiteral("two/../name"));
            QCoreApplication::setApplicationName(QStringLiteral("name"));
            ::umask(077);
            put("x");
            if (other == 0)
                ::_exit(0);
            ::waitpid(other, nullptr, 0);
            return records() + QFileInfo(logPath()).fileName() +
                   QString::number(QFileInfo(logPath()).permissions(), 16);
        });
        const QString user = qEnvironmentVariable("USER");
        QCOMPARE(second, QStringLiteral("1 x|1 x|name_%1_%2.log6666")
                             .arg(user, QDate::currentDate().toString(QStringLiteral("yyyy.MM.dd"))));
        QCOMPARE(log().count("Версия"), 2); // of the program and of the system
    }
}

void TestLogWriter::bindsOnceAndSharesSlots()
{
    const QString outcome = Forked::text([] {
        std::vector<std::unique_ptr<QThread>> threads;
        QSet<DebugData *> bound;
        QMutex mutex;
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back(QThread::create([&] {
                currentTabLevel();
                const QMutexLocker locker(&mutex);
                bound.insert(LoggerData::debugData());
            }));
            threads.back()->start();
        }
        for (const auto &thread : threads)
            thread->wait();

        DebugData own;
        LoggerData::initDebug(&own);
        QThread *first = nullptr;
        QThread *second = nullptr;
        inThread([] { return put("first"), QString(); }, &first);
        inThread([] { return put("second"), QString(); }, &second);
        deleteThreadTabLevel(first);
        deleteThreadTabLevel(nullptr);
        inThread([] { return put("third"), QString(); });
        return QStringLiteral("%1 %2 ").arg(bound.size()).arg(own.tabulations.size()) + records();
    });
    QCOMPARE(outcome, QStringLiteral("1 2 1 first|2 second|1 third|"));
}

// Every third write fails; the handler has a lock of its own, as a host's window would.
void TestLogWriter::aHostsHandlerMayLogAndReadSettings()
{
    const QString outcome = Forked::text([] {
        QMutex hosts;
        std::atomic<int> heard{0};
        MessageCatcher messages([&](const QString &) {
            const QMutexLocker locker(&hosts);
            CSettings().debugJournals();
            put("heard");
            ++heard;
        });
        put("first");
        std::vector<std::unique_ptr<QThread>> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back(QThread::create([] {
                for (int k = 0; k < 200; ++k)
                    debug(QStringLiteral("Test"), QStringLiteral("said"), DebugAlways, DebugFlagNone);
            }));
            threads.back()->start();
        }
        for (const auto &thread : threads)
            thread->wait();
        const QString written =
            QStringLiteral("%1 %2 %3").arg(heard).arg(log().count("said")).arg(log().count("heard"));

        QDir(path() + QStringLiteral("/data/0/log")).removeRecursively();
        TestInstallation::write(path() + QStringLiteral("/data/0/log"), "in the way");
        messages.takeAll();
        put("lost"); // warns; the handler's own record fails in turn
        return written + QStringLiteral(" %1").arg(messages.count(QtWarningMsg));
    });
    QCOMPARE(outcome, QStringLiteral("800 800 800 1"));
}

void TestLogWriter::aKilledThreadLeavesTheLogOpen()
{
    const auto work = [] {
        const auto previous =
            qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
        for (int round = 0; round < 40; ++round) {
            const std::unique_ptr<QThread> thread(QThread::create([round] {
                for (;;) {
                    TRACE_FUNCTION;
                    const _CFunctionMeasure measure("measure", true);
                    debug(QStringLiteral("Test"), QStringLiteral("text"), DebugTransportTasks, DebugFlagNone);
                    if (round % 2 == 0)
                        CSettings().write(QStringLiteral("X/y"), round);
                    QThread::yieldCurrentThread();
                    ::usleep(1);
                }
            }));
            thread->start();
            QThread::msleep(static_cast<unsigned long>(round % 5));
            thread->terminate();
            if (!thread->wait(5000))
                return 1;
            deleteThreadTabLevel(thread.get());
            put("alive");
        }
        qInstallMessageHandler(previous);
        return log().count("alive") == 40 && currentTabLevel() <= 2 ? 0 : 2;
    };
    QCOMPARE(Forked::run(work), 0);
    clean();
    QVERIFY(writeSettings("[Debug]\nall=true\n"));
    QCOMPARE(Forked::run(work), 0);
}

QTEST_GUILESS_MAIN(TestLogWriter)
#include "tst_logwriter.moc"
