// What an administrator asks: what is wrong here, where does a call stop, what does the log say, which
// settings are these. An installation is damaged in many ways, and each has to be named.
#include "common/global.h"
#include "host/health/checks.h"
#include "host/logs/clogs.h"
#include "host/settings/csettingschanges.h"
#include "host/settings/settingstext.h"
#include "tests/support/forked.h"
#include "tests/support/testinstallation.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>
#include <QtTest>

#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace TestInstallation;

namespace {

constexpr int patienceMs = 30000;
constexpr uid_t nobody = 65534;

QStringList codesOf(const char *check)
{
    QStringList codes;
    const HealthContext around = HealthContext::look();
    for (const HealthCheck &row : healthChecks()) {
        if (qstrcmp(row.name, check) != 0)
            continue;
        for (const Finding &finding : row.run(around))
            codes << finding.code;
    }
    return codes;
}

void put(const char *name, const QByteArray &text)
{
    write(path() + QLatin1Char('/') + QLatin1String(name), text);
}

QByteArray line(const char *time, const char *source, int thread, const char *text)
{
    return QByteArray(time) + ' ' + QByteArray(source).rightJustified(25) + QByteArray(4 * thread, ' ') +
           text + '\n';
}

/// The time of a file's last change, so long after now.
void setChanged(const QString &fileName, qint64 seconds)
{
    const timespec times[2] = {{0, UTIME_OMIT}, {::time(nullptr) + seconds, 0}};
    ::utimensat(AT_FDCWD, QFile::encodeName(fileName).constData(), times, 0);
}

/// Somebody else's program on a port of this machine, until it is destroyed.
struct ForeignListener
{
    explicit ForeignListener(int port)
    {
        const QString script =
            "use IO::Socket::INET; $s = IO::Socket::INET->new(Listen => 5, LocalAddr => "
            "'127.0.0.1', LocalPort => %1) or die; $| = 1; print 'x'; while ($c = $s->accept) "
            "{ print $c \"HTTP/1.0 400\\r\\n\\r\\n\"; push @kept, $c }"_s.arg(port);
        process.start("perl"_s, {"-e"_s, script});
        process.waitForReadyRead(patienceMs);
    }
    ~ForeignListener()
    {
        process.kill();
        process.waitForFinished();
    }
    QProcess process;
};

/// An installation with the program in it.
struct Installation
{
    Installation()
    {
        QDir().mkpath(directory.filePath("bin/channelPlugins"_s));
        const char *const files[][2] = {{ABONENT_FILE, "bin/abonent"},
                                        {CHANNEL_FILE, "bin/channelPlugins/libtransportIp.so"}};
        for (const auto &file : files) {
            const QString to = directory.filePath(QLatin1String(file[1]));
            if (::link(file[0], QFile::encodeName(to).constData()) != 0)
                QFile::copy(QString::fromUtf8(file[0]), to);
        }
    }
    ~Installation() { end(); }

    int run(const QString &words)
    {
        QProcess process;
        process.start(directory.filePath("bin/abonent"_s), words.split(QLatin1Char(' '), Qt::SkipEmptyParts));
        process.waitForFinished(patienceMs);
        output = QString::fromUtf8(process.readAllStandardOutput());
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    bool listen(const QString &words)
    {
        listener.start(directory.filePath("bin/abonent"_s), words.split(QLatin1Char(' ')));
        QByteArray heard;
        return QTest::qWaitFor([&] { return (heard += listener.readAll()).contains("успешно запущен"); },
                               patienceMs);
    }

    void end()
    {
        listener.terminate();
        listener.waitForFinished(patienceMs);
    }

    QTemporaryDir directory;
    QProcess listener;
    QString output;
};

/// "echo ok 0": the last finding of `doctor` and the exit code.
QString verdict(Installation *on, const QString &words)
{
    const int code = on->run("doctor --json "_s + words);
    const QStringList lines = on->output.trimmed().split(QLatin1Char('\n'));
    const QJsonObject last = QJsonDocument::fromJson(lines.value(lines.size() - 2).toUtf8()).object();
    return "%1 %2 %3"_s.arg(last["check"_s].toString(), last["code"_s].toString()).arg(code);
}

} // namespace

Q_DECLARE_METATYPE(std::function<void()>)
Q_DECLARE_METATYPE(LogFilter)

class TestHealth : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { qunsetenv("LC_ALL"); }

    void init()
    {
        clean();
        qputenv("LANG", "C.UTF-8");
        qunsetenv("TZ");
    }

    void namesWhatIsWrong_data()
    {
        QTest::addColumn<QString>("check");
        QTest::addColumn<std::function<void()>>("damage");
        const auto row = [](const char *check, const char *code, const std::function<void()> &damage) {
            QTest::addRow("%s %s", code, check) << QString::fromLatin1(check) << damage;
        };
        const auto file = [&row](const char *check, const char *code, const char *name,
                                 const QByteArray &text) {
            row(check, code, [name, text] { put(name, text); });
        };
        ChannelIpSettings record;
        record.maxConnections = 0;
        file("settings", "settings-damaged", "settings/channelIp.conf", "xx");
        file("settings", "out-of-range", "settings/channelIp.conf", record.toByteArray());
        file("settings", "out-of-range", "settings/settings.ini", "[Details]\nmaxWritingTime=7\n");
        file("settings", "out-of-range", "settings/generalSettings.ini", "[Contacts]\npolicy=x\n");
        file("settings", "odd-switch", "settings/settings.ini", "[Debug]\nall=нет\n");
        file("settings", "unknown-key", "settings/settings.ini", "[Debug]\nAll=true\n");
        file("settings", "unknown-key", "settings/generalSettings.ini", "[Strangers]\ndiskMB=5\n");
        file("settings", "settings-damaged", "settings/settings.ini", "[Debug]\nnonsense\n");
        row("settings", "settings-unreadable", [] { QDir().mkpath(settingsPath()); });
        file("identity", "key-unusable", "settings/identity.pem", "x");
        file("contacts", "contacts-damaged", "settings/abonents.conf", "abonents 1\n\nname: А\n\nend 2\n");
        file("contacts", "contacts-newer", "settings/abonents.conf", "abonents 9\n");
        file("contacts", "contacts-put-aside", "settings/abonents.conf.damaged-2026", "x");
        file("directories", "not-a-directory", "data/0/messages", "x");
        file("clock", "clock-jumps", "data/0/log/a_u_2026.11.20.log",
             line("12:00:00.000", "A", 1, "x") + line("11:30:00.000", "A", 1, "y"));
        row("clock", "clock-set-back", [] {
            put("data/0/log/a_u_2026.11.20.log", "");
            setChanged(path() + "/data/0/log/a_u_2026.11.20.log"_s, 7200);
        });
        row("clock", "no-such-zone", [] { qputenv("TZ", "Europe/Nowhere"); });
        row("locale", "not-utf-8", [] { qputenv("LANG", ""); });
        row("locale", "no-such-locale", [] { qputenv("LANG", "xx_XX.UTF-8"); });
        file("growth", "journal-unusable", "data/0/journals_2.2.db", QByteArray(5000, 'x'));
        file("growth", "journal-put-aside", "data/0/journals_2.2.db.damaged-1", "x");
        file("growth", "log-all", "settings/settings.ini", "[Debug]\nall=true\n");
        file("outbox", "outbox-waits", "data/0/messages/output/00000001/message", "x");
        row("descriptors", "few-descriptors", [] {
            ChannelIpSettings many;
            many.maxConnections = 1000000;
            put("settings/channelIp.conf", many.toByteArray());
        });
        row("plugins", "no-ip-channel", [] { QFile::remove(path() + "/bin/channelPlugins/ip.so"_s); });
        file("plugins", "plugin-unusable", "bin/channelPlugins/text.so", "x");
    }

    void namesWhatIsWrong()
    {
        QFETCH(QString, check);
        QFETCH(std::function<void()>, damage);
        QDir(path() + "/bin/channelPlugins"_s).removeRecursively();
        QDir().mkpath(path() + "/bin/channelPlugins"_s);
        QVERIFY(QFile::link(QStringLiteral(CHANNEL_FILE), path() + "/bin/channelPlugins/ip.so"_s));
        const QString code = QString::fromLatin1(QTest::currentDataTag()).section(QLatin1Char(' '), 0, 0);
        const QByteArray name = check.toLatin1();
        QCOMPARE(codesOf(name).removeAll("ok"_s) > 0, true);
        QVERIFY(!codesOf(name).contains(code));
        damage();
        const QStringList codes = codesOf(name);
        QVERIFY2(codes.contains(code), qPrintable(codes.join(QLatin1Char(' '))));
    }

    void tellsWhoHoldsThePort()
    {
        ChannelIpSettings record;
        record.port = freePort();
        put("settings/channelIp.conf", record.toByteArray());
        QCOMPARE(codesOf("port"), QStringList{"ok"_s});
        {
            QTcpServer own; // of this very program
            QVERIFY(own.listen(QHostAddress::Any, quint16(record.port)));
            QCOMPARE(codesOf("port"), QStringList{"port-taken-here"_s});
        }
        const ForeignListener other(record.port);
        const Findings findings = Checks::port(HealthContext::look());
        QCOMPARE(findings.front().code, "port-taken"_s);
        QVERIFY2(findings.front().text.contains("процесс %1,"_s.arg(other.process.processId())),
                 qPrintable(findings.front().text));
    }

    void tellsAStrangerWhatHeLacks()
    {
        if (!Forked::canActAs(nobody))
            QSKIP("only root can be somebody else");
        put("data/0/log/x", "");
        QCOMPARE(Forked::text([] { return codesOf("level").join(QLatin1Char(' ')); }, nobody), "no-level"_s);
        QFile::setPermissions(path() + "/data/0"_s, QFile::Permissions(0x7777));
        QCOMPARE(Forked::text([] { return codesOf("level").join(QLatin1Char(' ')); }, nobody), "ok"_s);
        QVERIFY(Forked::text([] { return codesOf("directories").join(QLatin1Char(' ')); }, nobody)
                    .contains("directory-not-writable"_s));
    }

    void readsTheLog_data()
    {
        QTest::addColumn<LogFilter>("filter");
        QTest::addColumn<QString>("expected");
        const auto at = [](int day, int hour) {
            return wallTime(QDateTime(QDate(2026, 11, day), QTime(hour, 0)));
        };
        LogFilter filter;
        QTest::newRow("all") << filter
                             << "20 start/second//fourth|20 before|21 after|21 oleg|21 words/last|23 next"_s;
        filter.since = at(21, 0);
        filter.until = at(21, 12);
        QTest::newRow("time") << filter << "21 after|21 oleg"_s;
        filter = LogFilter();
        filter.sources = QStringList{"cipthread"_s};
        QTest::newRow("source") << filter << "20 before|21 after|23 next"_s;
        filter.thread = 2;
        QTest::newRow("source and thread") << filter << "20 before|23 next"_s;
        filter = LogFilter();
        filter.text = QRegularExpression("four|words$"_s);
        QTest::newRow("text of later lines") << filter << "20 start/second//fourth"_s;
        filter.sources = QStringList{"AVeryLongSourceNameIndeed!"_s};
        filter.text = QRegularExpression();
        QTest::newRow("cut source") << filter << QString();
    }

    void readsTheLog()
    {
        QFETCH(LogFilter, filter);
        const QString indent(42, QLatin1Char(' '));
        const QString first = path() + "/data/0/log/a_u_2026.11.20.log"_s;
        write(first, "head\n\n" + line("20:00:00.000", "CIpServer", 1, "start") + indent.toUtf8() +
                         "second\n\n" + indent.toUtf8() + "fourth\n" +
                         line("23:59:59.990", "CIpThread", 2, "before") +
                         line("00:00:00.010", "CIpThread", 3, "after") +
                         line("10:00:00.000", "CIpThread", 2, "next"));
        // Two days without a record: only the time of the file's last change tells of them.
        setChanged(first, QDateTime(QDate(2026, 11, 23), QTime(10, 0)).toSecsSinceEpoch() - ::time(nullptr));
        write(path() + "/data/0/log/a_oleg_2026.11.21.log"_s,
              line("08:00:00.000", "CMessenger", 1, "oleg") +
                  "12:04:05.123                forceDebug    words\n    last\n");
        setChanged(path() + "/data/0/log/a_oleg_2026.11.21.log"_s,
                   QDateTime(QDate(2026, 11, 21), QTime(12, 4, 5)).toSecsSinceEpoch() - ::time(nullptr));

        CLogHistory history(Global::logDir(0), filter);
        QStringList found;
        LogRecord record;
        while (history.next(&record)) {
            if (filter.accepts(record))
                found << record.dateTime().toString("dd "_s) +
                             record.text.replace(QLatin1Char('\n'), QLatin1Char('/'));
        }
        QTEST(found.join(QLatin1Char('|')), "expected");
    }

    void followsTheLogAcrossFiles()
    {
        const QString log = path() + "/data/0/log/a_u_2026.11.20.log"_s;
        const auto append = [](const QString &name, const char *text) {
            QFile file(name);
            QVERIFY(file.open(QIODevice::Append));
            file.write(line("12:00:00.000", "A", 1, text));
        };
        write(log, line("11:00:00.000", "A", 1, "old"));
        CLogTail tail(Global::logDir(0));
        const auto taken = [&tail] {
            QString texts;
            for (const LogRecord &record : tail.take())
                texts += record.text + QLatin1Char(' ');
            return texts.trimmed();
        };
        QCOMPARE(taken(), QString());
        append(log, "same");
        QCOMPARE(taken(), "same"_s);
        append(path() + "/data/0/log/a_u_2026.11.21.log"_s, "day");
        QCOMPARE(taken(), "day"_s);
        append(log, "before");
        QVERIFY(QFile::rename(log, log + ".1"_s));
        append(log + ".1"_s, "behind"); // of a process that had it open
        append(log, "new");
        QCOMPARE(taken(), "before behind new"_s);
        QVERIFY(QFile::resize(log, 0));
        QCOMPARE(taken(), QString());
        append(log, "emptied");
        QCOMPARE(taken(), "emptied"_s);
        QFile half(log);
        QVERIFY(half.open(QIODevice::Append));
        half.write(line("12:00:00.000", "A", 1, "half").chopped(3));
        half.flush();
        QCOMPARE(taken(), QString());
        half.write("lf\n");
        half.flush();
        QCOMPARE(taken(), "half"_s);
    }

    void carriesSettings()
    {
        const auto take = [](const QByteArray &text) {
            QString trouble;
            CSettingsChanges changes;
            for (const QString &assignment : SettingsText::assignments(text, &trouble)) {
                const QString objection = changes.add(assignment);
                trouble = trouble.isNull() ? objection : trouble;
            }
            return trouble.isNull() ? changes.make(false) : trouble;
        };
        QString trouble;
        const QByteArray normal = SettingsText::exported(&trouble);
        QCOMPARE(trouble, QString());
        QByteArray other = normal;
        other.replace("port=18001", "port=5").replace("maxWritingTime=5000", "maxWritingTime=0x100");
        other.replace("Abonent/name=", "Abonent/name=%20А%25%0A😀б");
        QCOMPARE(take(other), QString());
        QByteArray now = SettingsText::exported(&trouble);
        QCOMPARE(now, other.replace("0x100", "256"));

        for (const auto &[from, to] :
             {std::pair("port=5", "port=0"), std::pair("\nend", ""),
              std::pair("abonent settings 1", "abonent"), std::pair("port=5", "port=6\nport=7"),
              std::pair("port=5", "port"), std::pair("policy=first contact", "policy=x"),
              std::pair("port=5", "Debug/none=1")}) {
            QVERIFY(!take(QByteArray(other).replace(from, to)).isNull());
            QCOMPARE(SettingsText::exported(&trouble), now);
        }
        QCOMPARE(take(normal), QString());
        QCOMPARE(SettingsText::exported(&trouble), normal);
        put("settings/channelIp.conf", "xx");
        QVERIFY(SettingsText::exported(&trouble).isEmpty() && !trouble.isNull());
    }

    void saysWhereACallStops()
    {
        Installation anna;
        Installation boris;
        const QString address = "127.0.0.1:%1"_s.arg(freePort());
        QCOMPARE(boris.run("settings set port="_s + address.section(QLatin1Char(':'), 1)), 0);
        QCOMPARE(anna.run("settings set port=%1"_s.arg(freePort())), 0);
        QCOMPARE(verdict(&anna, "Борис"_s), "contact unknown-name 2"_s);
        QCOMPARE(anna.run("contact add Борис "_s + address), 0);
        QCOMPARE(verdict(&anna, "Борис"_s), "tcp refused 3"_s);
        QCOMPARE(verdict(&anna, "Борис no-such-host.invalid"_s), "address unknown-host 3"_s);
        {
            const int port = freePort();
            const ForeignListener other(port);
            QCOMPARE(verdict(&anna, "Борис 127.0.0.1:%1"_s.arg(port)), "tls no-tls 4"_s);
        }
        QVERIFY(boris.listen("listen --name Борис"_s));
        QCOMPARE(verdict(&anna, "Борис"_s), "echo ok 0"_s);
        QCOMPARE(verdict(&anna, "Глеб "_s + address), "name somebody-else 4"_s);
        const QString key = anna.directory.filePath("settings/identity.pem"_s);
        QVERIFY(QFile::rename(key, key + ".old"_s));
        QCOMPARE(verdict(&anna, "Борис"_s), "greeting no-greeting 4"_s);
        QVERIFY(QFile::remove(key) && QFile::rename(key + ".old"_s, key));
        boris.end();
        QVERIFY(QFile::remove(boris.directory.filePath("settings/identity.pem"_s)));
        QVERIFY(boris.listen("listen --name Борис"_s));
        QCOMPARE(verdict(&anna, "Борис"_s), "key key-differs 4"_s);
        QCOMPARE(anna.run("settings set canCheckOnline=false"_s), 0);
        QCOMPARE(verdict(&anna, "Борис"_s), "call not-allowed 6"_s);
        QVERIFY(verdict(&boris, QString()).startsWith("outbox ok 0"_s));
        QVERIFY2(boris.output.contains("принимает вызовы эта установка"_s), qPrintable(boris.output));
    }
};

QTEST_GUILESS_MAIN(TestHealth)
#include "tst_health.moc"
