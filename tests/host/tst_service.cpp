// What a service manager, Prometheus and the figures in between are told.
#include "host/service/cmetricsfile.h"
#include "host/service/cservicenotifier.h"
#include "host/service/ctraffic.h"
#include "interfaces/cchannelserver.h"
#include "tests/support/fakehost.h"
#include "tests/support/testinstallation.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

/// The manager's end: a socket that the program finds by its environment.
class Manager
{
public:
    explicit Manager(const QByteArray &watchdogUs)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
        if (::bind(end, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
            qFatal("no socket");
        qputenv("NOTIFY_SOCKET", path);
        qputenv("WATCHDOG_USEC", watchdogUs);
    }

    ~Manager()
    {
        qunsetenv("NOTIFY_SOCKET");
        qunsetenv("WATCHDOG_USEC");
        ::close(end);
    }

    /// All that it has been told since the last time, a message each.
    QStringList told()
    {
        QStringList all;
        char text[4096];
        for (ssize_t size = 0; (size = ::recv(end, text, sizeof text, MSG_DONTWAIT)) >= 0;)
            all << QString::fromUtf8(text, int(size));
        return all;
    }

private:
    const QTemporaryDir place;
    const QByteArray path = place.filePath("notify"_s).toUtf8();
    const int end = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

struct SilentServer final : CChannelServer
{
    bool hasFreeChannel() const override { return true; }
    bool isHardwareOn() const override { return true; }
    bool canCheckOnline() const override { return true; }
    void connectToAbonent(const QString &, const QByteArray &) override {}
    void disconnectFromAbonent(const QString &, int) override {}
    void keepAliveConnection(int) override {}
};

const QString alive = "WATCHDOG=1"_s;

} // namespace

class TestService : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tellsTheManager()
    {
        Manager manager("40000");
        CServiceNotifier::State state{false, "Порт занят\nWATCHDOG=trigger"_s};
        CServiceNotifier notifier;
        notifier.delay("Ждем"_s);
        QCOMPARE(manager.told(), QStringList("STATUS=Ждем\nEXTEND_TIMEOUT_USEC=30000000"_s));

        notifier.begin([&state] { return state; });
        QStringList told;
        const auto hears = [&](const QString &text) {
            return QTest::qWaitFor([&] { return (told += manager.told()).contains(text); });
        };
        QVERIFY(hears("STATUS=Порт занят WATCHDOG=trigger"_s)); // one assignment, whatever the text
        QVERIFY(hears(alive));
        QVERIFY(told.filter("READY"_s).isEmpty());
        state = {true, "Работает"_s};
        QVERIFY(hears("STATUS=Работает\nREADY=1"_s));

        // A loop that hangs gives no sign of life; one that goes on does again, also while it ends.
        manager.told();
        QThread::msleep(200);
        QCOMPARE(manager.told(), QStringList());
        notifier.stopping("Конец"_s);
        QVERIFY(hears("STATUS=Конец\nSTOPPING=1"_s));
        told.clear();
        QVERIFY(hears(alive));
        QCOMPARE(told.filter("READY"_s), QStringList());
    }

    void countsConnectionsAndNoServers()
    {
        Recorder monitor;
        SilentServer server;
        CTraffic traffic(monitor);
        server.monitorHandle = traffic.addConnection(1, "IP-канал"_s, "Запуск"_s);
        traffic.follow(server);
        traffic.setState(server.monitorHandle, "Работает"_s);
        const int handle = traffic.addConnection(1, "IP-канал 1"_s, "Входящее"_s);
        traffic.setState(handle, "Установлено"_s);
        traffic.addReceived(handle, 5);
        traffic.addSent(handle, 7);
        emit server.connected("Анна"_s, 1);
        emit server.notConnected("Борис"_s);
        const auto shown = [&traffic] {
            const CTraffic::Counts now = traffic.counts();
            return "%1: %2 of %3, %4 and %5 calls, %6 and %7 bytes"_s.arg(now.state)
                .arg(now.openNow)
                .arg(now.connections)
                .arg(now.conversations)
                .arg(now.failedCalls)
                .arg(now.received)
                .arg(now.sent);
        };
        QCOMPARE(shown(), "Работает: 1 of 1, 1 and 1 calls, 5 and 7 bytes"_s);
        traffic.removeConnection(handle);
        traffic.removeConnection(server.monitorHandle);
        QCOMPARE(shown(), ": 0 of 1, 1 and 1 calls, 5 and 7 bytes"_s);
    }

    // The file is always whole, under its name only, and its last figures say that the program has ended.
    void writesFigures()
    {
        TestInstallation::clean();
        const QString data = TestInstallation::path() + "/data/0/"_s;
        TestInstallation::plant(data, "messages/output/1/message=12345 messages/output/1/pack=1 "
                                      "messages/output/2/pack=unfinished log/a.log=123 journals_2.2.db=12 "
                                      "journals_2.2.db-wal=1"_s);
        const QTemporaryDir place;
        const QString path = place.filePath("a.prom"_s);
        const auto value = [&path](const QString &name) {
            const QString text = QString::fromUtf8(TestInstallation::read(path));
            return QRegularExpression("\n%1\\{[^\n]*\\} (-?\\d+)\n"_s.arg(name)).match(text).captured(1);
        };
        QStringList troubles;
        {
            Metrics live;
            live.callsTotal = 17;
            const CMetricsFile file(
                path, 0, "А\"\\\n"_s, [live] { return live; },
                [&](const QString &text) { troubles << text; });
            QVERIFY(QTest::qWaitFor([&] { return value("abonent_running"_s) == "1"_s; }));
        }
        QStringList figures;
        for (const auto &name : {"running"_s, "calls_total"_s, "outbox_entries"_s, "outbox_bytes"_s,
                                 "log_size_bytes"_s, "journal_size_bytes"_s})
            figures << name + QLatin1Char(' ') + value("abonent_"_s + name);
        QCOMPARE(figures, QStringList({"running 0"_s, "calls_total 17"_s, "outbox_entries 1"_s,
                                       "outbox_bytes 6"_s, "log_size_bytes 3"_s, "journal_size_bytes 3"_s}));
        QVERIFY(TestInstallation::read(path).contains("{abonent=\"А\\\"\\\\\\n\",installation=\""));
        QCOMPARE(QDir(place.path()).entryList(QDir::Files | QDir::Hidden), QStringList("a.prom"_s));
        QCOMPARE(troubles, QStringList());

        QProcess promtool;
        promtool.setStandardInputFile(path);
        promtool.start("promtool"_s, {"check"_s, "metrics"_s});
        if (promtool.waitForStarted()) { // where Prometheus is installed
            promtool.waitForFinished();
            QCOMPARE(promtool.readAllStandardError() + promtool.readAllStandardOutput(), QByteArray());
        }

        const CMetricsFile nowhere(
            "/nowhere/a.prom"_s, 0, "A"_s, [] { return Metrics(); },
            [&](const QString &text) {
                QMetaObject::invokeMethod(this, [&troubles, text] { troubles << text; });
            });
        QVERIFY(QTest::qWaitFor([&] { return !troubles.isEmpty(); }));
    }
};

QTEST_GUILESS_MAIN(TestService)
#include "tst_service.moc"
