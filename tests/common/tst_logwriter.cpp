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

#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace TestInstallation;

namespace {

void put(const char *text, int level = DebugAlways)
{
    debug("Test"_s, QString::fromUtf8(text), static_cast<DebugLevel>(level), DebugFlagFileOnly);
}

QString logPath()
{
    const QDir directory(path() + "/data/0/log"_s);
    return directory.absoluteFilePath(directory.entryList(QDir::Files | QDir::Hidden).value(0));
}

// The log without its head and the times and sources: a first line as "1 text|", 1 being its tab level.
QString records()
{
    const QByteArray bytes = log();
    QString text = QString::fromUtf8(bytes.constData(), bytes.size()); // behind NULs, too
    if (text.startsWith("Версия 3.0.25.0 release linux edition"_s))
        text.remove(0, text.indexOf("\n\n"_s) + 2);
    const QRegularExpression start("^\\d\\d:\\d\\d:\\d\\d\\.\\d{3} [ \\w.]{25}((?:    )+)"_s);
    QStringList result;
    for (const QString &line : text.split(QLatin1Char('\n'))) {
        const QRegularExpressionMatch match = start.match(line);
        result += match.hasMatch() ? QString::number(match.capturedLength(1) / 4) + QLatin1Char(' ') +
                                         line.mid(match.capturedEnd())
                                   : line;
    }
    return result.join(QLatin1Char('|'));
}

QByteArray bytesOf(const LogFormat::Record &record)
{
    return QByteArray(record.constData(), record.size());
}

} // namespace

// Each case is a process of its own.
class TestLogWriter : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { clean(); }
    void recordsHaveTheirForm()
    {
        const QString name = "CIpChannel"_s;
        const QByteArray start = "12:04:05.123                CIpChannel";
        const QByteArray later(38, ' ');
        const QChar odd[] = {QLatin1Char('a'), QChar(0),          QLatin1Char('\r'),
                             QChar(0xd800),    QLatin1Char('\n'), QLatin1Char('b')};
        const struct
        {
            QString source, text;
            int tab;
            QByteArray bytes;
        } rows[] = {
            {name, "Имя %1 %2"_s, 1, start + "    Имя %1 %2\n"},
            {name, "a\n\nb"_s, 1, start + "    a\n\n" + later + "    b\n"},
            {name, "\n12:00:00.000 x"_s, 2, '\n' + start + "        12:00:00.000 x\n"},
            {name, "a\n"_s, 1, start + "    a\n\n"},
            {name, QString(), 1, "\n"},
            {name, QString(odd, 6), 1, start + QByteArray("    a\0\r?\n", 9) + later + "    b\n"},
            {"1234567890123456789012345"_s, name, 1,
             "12:04:05.123 1234567890123456789012345    CIpChannel\n"},
            {"12345678901234567890123456"_s, name, 1,
             "12:04:05.123 1234567890123456789012...    CIpChannel\n"},
        };
        LogFormat::TimeText time;
        std::copy_n("12:04:05.123", time.size(), time.begin());
        for (const auto &row : rows)
            QCOMPARE(bytesOf(LogFormat::record(time, row.source, row.tab, row.text)), row.bytes);

        // The conversion is our own: pieces of all kinds in all orders, with Qt's for comparison.
        const QString pieces[] = {"twelve units"_s, "Ж"_s,         "\u20ac"_s,
                                  "\U0001f600"_s,   QChar(0xd800), QChar(0xdc00)};
        for (int order = 0; order < 6 * 6 * 6 * 6; ++order) {
            QString text;
            for (int rest = order + 1296; rest > 1; rest /= 6)
                text += pieces[rest % 6];
            QCOMPARE(bytesOf(LogFormat::record(time, name, 1, text)), start + "    " + text.toUtf8() + '\n');
        }
    }

    void switchesDecide()
    {
        const QString outcome = Forked::text([] {
            writeSettings("[Debug]\ntransportConnects=false\njournals=true\n");
            for (const int level : {0, 1, 3, 7, 18, 21, 25, -1})
                put(QByteArray::number(level).constData(), level);
            writeSettings("[Debug]\ntransportConnects=true\njournals=false\n");
            put("7 on", 7);
            put("18 off", 18);
            MessageCatcher messages;
            debug("S"_s, "a\n\"b\" ж"_s, DebugAlways, DebugFlagNone);
            debug("S"_s, "file"_s, DebugAlways, DebugFlagFileOnly);
            debug("S"_s, "off"_s, DebugIpcData, DebugFlagNone);
            return records() + messages.takeAll();
        });
        QVERIFY2(outcome.startsWith("1 0|1 3|1 18|1 21|1 25|1 -1|1 7 on|1 a|"_s), qPrintable(outcome));
        QVERIFY2(outcome.endsWith("|1 file|\"S\" \"a\\n\\\"b\\\" ж\""_s), qPrintable(outcome));
    }

    // Amid many records, of which only the first look at the path.
    void aFileTakenAwayIsMadeAnew()
    {
        const QString outcome = Forked::text([] {
            const QString away = path() + "/data/away"_s;
            const QString directory = path() + "/data/0/log"_s;
            for (int i = 0; i < 200; ++i)
                put("renamed");
            QFile::rename(logPath(), away);
            put("deleted");
            QString result = records();
            QFile::remove(logPath());
            put("moved");
            result += records();
            QDir().rename(directory, away + QLatin1Char('2'));
            QThread::msleep(10); // a change above the file shows with the next tick of the clock
            put("anew");
            return result + records() + QString::number(read(away).count("renamed"));
        });
        QCOMPARE(outcome, "1 deleted|1 moved|1 anew|200"_s);
    }

    // No room in the middle of a line, exactly between two lines, and none at all.
    void aTornLineEnds()
    {
        const QString outcome = Forked::text([] {
            MessageCatcher messages;
            put("before");
            const auto size = static_cast<rlim_t>(QFileInfo(logPath()).size());
            for (const rlim_t limit : {size + 44, size + 45 + 47, size, RLIM_INFINITY}) {
                const rlimit limits = {limit, RLIM_INFINITY};
                ::setrlimit(RLIMIT_FSIZE, &limits);
                QThread::msleep(10); // limits are looked at once per tick of the clock
                put(limit == RLIM_INFINITY ? "after" : "torn\ngone");
            }
            return messages.takeAll() + records();
        });
        const QString failed = "Не удалось записать данные в лог файл. Ошибка записи.  \"File too large\"|"_s;
        QCOMPARE(outcome, failed.repeated(4).chopped(1) + "1 before|1 to|1 torn|1 after|"_s);
    }

    // Of a process that was killed, or of a machine that has lost its power. What may be asked of the
    // settings only when a directory is made is not asked.
    void aLogLeftBehindGoesOn()
    {
        const QString zeros(2, QChar(0));
        const struct
        {
            QString left, before;           // the first record
        } rows[] = {{QString(), "head "_s}, // none at all, in a directory that is there
                    {""_s, "head "_s},
                    {"whole\n"_s, "whole|"_s},
                    {"tor"_s, "tor|"_s},
                    {"whole\n"_s + zeros, "whole|"_s + zeros + QLatin1Char('|')}};
        const QString name = Forked::text([] { return put("a first one"), logPath(); });
        for (const auto &row : rows) {
            clean();
            write(name, row.left.toUtf8());
            if (row.left.isNull())
                QFile::remove(name);
            for (int process = 0; process < 2; ++process)
                Forked::run([] { return put("next"), 0; });
            QCOMPARE((log().startsWith("Версия") ? "head "_s : QString()) + records(),
                     row.before + "1 next|1 next|"_s);
            QVERIFY(!settings().contains("dirPermissions"));
        }
    }

    // A host closes what is not its own, and its next files get the numbers: of the log and of its watch.
    void strangersGetNothing()
    {
        const QString outcome = Forked::text([] {
            const auto leadsTo = [](int fd) { return QFile::symLinkTarget("/proc/self/fd/%1"_s.arg(fd)); };
            QString result;
            for (const bool isReplaced : {true, false}) {
                QList<int> taken; // the log's, and the watch's, which begins when records come fast
                for (int again = 0; again < 100000 && taken.size() < 2; ++again) {
                    put("before");
                    taken.clear();
                    for (int fd = 3; again % 100 == 99 && fd < 20; ++fd) {
                        if (leadsTo(fd).contains(QRegularExpression("inotify|/data/0/log/"_s)))
                            taken += fd;
                    }
                }
                int ends[2]; // of a connection that blocks and has something to be read
                ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
                static_cast<void>(::write(ends[0], "own", 3));
                for (const int fd : taken)
                    isReplaced ? ::dup2(ends[1], fd) : ::close(fd);
                for (int i = 0; i < 100; ++i)
                    put("after");
                QFile::rename(logPath(), path() + "/data/away"_s); // something to be told of
                put("anew");

                int waiting = 0;
                ::ioctl(ends[1], FIONREAD, &waiting);
                char received = 0;
                const bool isSilent = ::recv(ends[0], &received, 1, MSG_DONTWAIT) < 0;
                int open = 0;
                for (const int fd : taken)
                    open += leadsTo(fd).contains("socket"_s);
                result += "%1 of %2 open, %3, %4 bytes to read, %5 records after, "_s.arg(open)
                              .arg(taken.size())
                              .arg(isSilent ? "silent"_s : "written to"_s)
                              .arg(waiting)
                              .arg(read(path() + "/data/away"_s).count("    after\n")) +
                          records();
                clean();
            }
            return result;
        });
        const QString fine = "%1 of 2 open, silent, 3 bytes to read, 100 records after, 1 anew|"_s;
        QCOMPARE(outcome, fine.arg(2) + fine.arg(0));
    }

    void emergencyRecordsNeedNothing()
    {
        const QString outcome = Forked::text([] {
            ::umask(077);
            emergecyDebug("a\n\nb"_s);
            const QString first = QString::fromUtf8(log());
            put("record");
            emergecyDebug("c"_s);
            return first + QString::number(QFileInfo(logPath()).permissions(), 16) +
                   QString::number(log().count("forceDebug"));
        });
        const QRegularExpression expected("^[\\d:]{8}\\.\\d{3} {16}forceDebug {4}a\n\n {4}b\n66002$"_s);
        QVERIFY2(expected.match(outcome).hasMatch(), qPrintable(outcome));
    }

    // Two processes begin a log in the same moment, again and again: one makes it, with its head before all
    // records.
    void theHeadComesFirstAndOnce()
    {
        const QString outcome = Forked::text([] {
            void *const shared =
                ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
            auto *const arrived = new (shared) std::atomic<int>(0);
            const auto meet = [arrived] {
                const int all = (arrived->fetch_add(1) | 1) + 1; // two at a time
                while (*arrived < all) {
                }
            };
            QCoreApplication::setApplicationName("name"_s);
            ::umask(077);
            const pid_t other = ::fork();
            QString result;
            for (int round = 0; round < 300; ++round) {
                meet();
                put("x");
                meet();
                if (other != 0 && (log().count("Версия") != 2 || records() != "1 x|1 x|"_s))
                    result += QString::fromUtf8(log());
                const QFileInfo made(logPath());
                if (other != 0 && round == 299)
                    return result + made.fileName() + QString::number(made.permissions(), 16) +
                           QString::number(QFileInfo(made.path()).permissions(), 16);
                QFile::remove(other != 0 ? logPath() : QString());
            }
            ::_exit(0);
        });
        QCOMPARE(outcome, "name_%1_%2.log66667777"_s.arg(qEnvironmentVariable("USER"),
                                                         QDate::currentDate().toString("yyyy.MM.dd"_s)));
    }

    void threadsHaveSlots()
    {
        const QString outcome = Forked::text([] {
            int differing = 0;
            for (int round = 0; round < 300; ++round) {
                gDebugData = nullptr;
                std::atomic<int> ready{0};
                std::atomic<DebugData *> bound[2] = {};
                Forked::inThreads(2, [&](int number) {
                    ++ready;
                    while (ready < 2) {
                    }
                    bound[number] = boundDebugData();
                });
                differing += bound[0] != bound[1];
            }
            DebugData own;
            LoggerData::initDebug(&own);
            std::unique_ptr<QThread> threads[3];
            for (int i = 0; i < 3; ++i) {
                threads[i].reset(QThread::create([i] { put(QByteArray::number(i).constData()); }));
                threads[i]->start();
                threads[i]->wait();
                deleteThreadTabLevel(i == 1 ? threads[0].get() : nullptr);
            }
            return "%1 %2 "_s.arg(differing).arg(own.tabulations.size()) + records();
        });
        QCOMPARE(outcome, "0 2 1 0|2 1|1 2|"_s);
    }

    // The handler has a lock of its own, as a host's window would.
    void aHostsHandlerMayLogAndReadSettings()
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
            Forked::inThreads(4, [](int) {
                for (int i = 0; i < 200; ++i)
                    debug("Test"_s, "said"_s, DebugAlways, DebugFlagNone);
            });
            const QByteArray text = log();
            const QString directory = path() + "/data/0/log"_s;
            QDir(directory).removeRecursively();
            write(directory, "in the way");
            messages.takeAll();
            put("lost"); // warns; the handler's own record fails in turn
            emergecyDebug("lost"_s);
            QFile::remove(directory);
            put("last");
            return "%1 messages heard, %2 said and %3 heard in the log, %4 last: "_s.arg(heard)
                       .arg(text.count("said"))
                       .arg(text.count("heard"))
                       .arg(log().count("last\n")) +
                   messages.takeAll().remove(directory);
        });
        const QString failed = "Не удалось создать каталог для записи лога \"\""_s;
        QCOMPARE(outcome, "802 messages heard, 800 said and 800 heard in the log, 1 last: "_s + failed +
                              QLatin1Char('|') + failed);
    }
};

QTEST_GUILESS_MAIN(TestLogWriter)
#include "tst_logwriter.moc"
