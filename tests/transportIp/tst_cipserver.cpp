// The server with its workers, driven as a host does: what is reported, in which order, to whom.
#include "tests/support/fakehost.h"
#include "tests/support/messagecatcher.h"
#include "tests/support/testinstallation.h"

#include "common/directorylayout.h"
#include "transportIp/cipserver.h"
#include "transportIp/cipsettings.h"

#include <QDir>
#include <QElapsedTimer>
#include <QSemaphore>
#include <QTcpServer>
#include <QTest>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd"))
        .entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System)
        .size();
}

QByteArray recordFor(int port)
{
    return AbonentIpSettings{QStringLiteral("127.0.0.1"), port}.toByteArray();
}

} // namespace

class TestCIpServer : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<FakeHost> host;
    std::unique_ptr<CIpServer> server;
    int port = 0;

    void configure(const ChannelIpSettings &settings)
    {
        QVERIFY(TestInstallation::write(Global::channelIpSettingsFilePath(), settings.toByteArray()));
    }

    std::unique_ptr<QTcpSocket> connectedClient()
    {
        auto client = std::make_unique<QTcpSocket>();
        client->connectToHost(QHostAddress::LocalHost, quint16(port));
        if (!client->waitForConnected(5000))
            qWarning("client is not connected");
        return client;
    }

    QStringList journalAfterStart()
    {
        return {QStringLiteral("0 IP-канал: Запуск"),
                QStringLiteral("0 IP-канал: TCP сервер успешно запущен на %1 порту").arg(port)};
    }

private Q_SLOTS:
    void initTestCase()
    {
        TestInstallation::clean();
        QVERIFY(TestInstallation::writeSettings("[Details]\ntransportServerThreadStopTimeout="
                                                "1000\ntransportIpConnectTimeout=700\nmaxWritingTime=300\n"));
    }

    void init()
    {
        server = std::make_unique<CIpServer>();
        host = std::make_unique<FakeHost>(server.get());
        port = freePort();
        configure({true, 3, port, 128});
        server->start();
        QCOMPARE(host->monitor.state(), QStringLiteral("Работает"));
        QCOMPARE(host->journal.take(), journalAfterStart());
    }

    void cleanup()
    {
        QVERIFY(host->stopServer());
        QCOMPARE(host->monitor.state(), QStringLiteral("Выключен"));
        server.reset();
        host.reset();
    }

    void loadsSettings()
    {
        QCOMPARE(gIpSettings.blockSizeKb, 128);
        configure({false, 0, port, 1});
        server->settingsWasChanged();
        QVERIFY(!server->hasFreeChannel() && !server->canCheckOnline());
        QVERIFY(host->journal.take().isEmpty()); // the port is the same: no restart

        const int formerPort = std::exchange(port, freePort());
        configure({true, 3, port, 1});
        server->settingsWasChanged();
        QCOMPARE(host->journal.take(), journalAfterStart());
        QVERIFY(echoes(connectedClient().get(), "new port"));
        QTcpServer former;
        QVERIFY(former.listen(QHostAddress::AnyIPv4, quint16(formerPort)));

        configure({false, 3, port, 1});
        server->settingsWasChanged();
        QVERIFY(host->stopServer());
        QVERIFY(QFile::remove(Global::channelIpSettingsFilePath()));
        server->settingsWasChanged(); // defaults, but for what has no default
        QVERIFY(!server->canCheckOnline());
        QCOMPARE(gIpSettings.port, 18001);
        QCOMPARE(gIpSettings.blockSizeKb, 64);

        QVERIFY(TestInstallation::write(Global::channelIpSettingsFilePath(), QByteArray("\0\0\0\1", 4)));
        server->settingsWasChanged();
        QVERIFY(TestInstallation::log().contains(
            "Ошибка чтения настроек IP канала. Версия настроек 1 не совпадает с текущей 2"));
    }

    void retriesToListen()
    {
        QVERIFY(host->stopServer());
        host->journal.take();
        QTcpServer occupant;
        QVERIFY(occupant.listen(QHostAddress::AnyIPv4, quint16(port)));
        server->start();
        const QString text =
            QStringLiteral("Ошибка запуска TCP сервера на %1 порту. The bound address is already in use")
                .arg(port);
        QCOMPARE(host->monitor.state(), text);
        QVERIFY(host->journal.contains(QStringLiteral("2 IP-канал: ") + text));

        const auto *retry = server->findChild<QTimer *>();
        QVERIFY(retry->isActive() && retry->interval() == 30000);
        QVERIFY(host->stopServer());
        QVERIFY(!retry->isActive());
        server->start();
        QVERIFY(retry->isActive());
        occupant.close();
        QVERIFY(QMetaObject::invokeMethod(server.get(), "tryListen")); // what the timer does
        QCOMPARE(host->monitor.state(), QStringLiteral("Работает"));
        QVERIFY(!retry->isActive());
    }

    void numbersAndReusesWorkers()
    {
        host->factory->script = [](ScriptedProtocol *protocol) {
            protocol->onStart = [](ScriptedProtocol *p) { p->announce(p->label); };
        };
        auto first = connectedClient();
        QVERIFY(host->waitForSignal(QStringLiteral("connected IP-канал 1 1")));
        auto second = connectedClient();
        QVERIFY(host->waitForSignal(QStringLiteral("connected IP-канал 2 2")));
        QVERIFY(echoes(first.get(), "to one") && echoes(second.get(), QByteArray(300000, 'b')));
        QCOMPARE(host->monitor.entry(2).label, QStringLiteral("1 IP-канал 2"));
        QCOMPARE(host->monitor.entry(2).states,
                 (QStringList{QStringLiteral("Входящее соединение от 127.0.0.1"),
                              QStringLiteral("Установлено соединение с 'IP-канал 2'")}));
        QCOMPARE(host->monitor.entry(2).received, 300000);

        server->keepAliveConnection(2);
        server->keepAliveConnection(77);
        first.reset();
        QVERIFY(host->waitForSignal(QStringLiteral("disconnected IP-канал 1 1 useful")));
        QTest::qWait(20);
        auto third = connectedClient(); // takes the first worker
        QVERIFY(host->waitForSignal(QStringLiteral("connected IP-канал 1 1")));
        QVERIFY(!third->waitForReadyRead(1));
        QVERIFY(host->monitor.entry(1).removed && !host->monitor.entry(3).removed);

        MessageCatcher messages;
        server->disconnectFromAbonent(QStringLiteral("nobody"), 9);
        QCOMPARE(messages.count(QtDebugMsg), 3); // a line for each worker passed over, and the log's echo
        server->disconnectFromAbonent(QStringLiteral("ip КАНАЛ-2"), -1);
        QVERIFY(host->waitForSignal(QStringLiteral("disconnected IP-канал 2 2 useful")));
    }

    /// What the host hears of a call, by what happens to it.
    void calls_data()
    {
        QTest::addColumn<QString>("answer"); // the name that the protocol finds at the other end
        QTest::addColumn<QStringList>("signals_");
        const QString called = QStringLiteral("Узел-1 \"%1\"\n%2");
        QTest::newRow("same abonent") << QStringLiteral("узел1 12")
                                      << QStringList{QStringLiteral("connected узел1 12 1"),
                                                     QStringLiteral("disconnected узел1 12 1 idle")};
        QTest::newRow("never named") << QString()
                                     << QStringList{QStringLiteral("disconnected %1 1 idle").arg(called)};
        QTest::newRow("somebody else")
            << QStringLiteral("other")
            << QStringList{QStringLiteral("connected other 1"), QStringLiteral("notConnected %1").arg(called),
                           QStringLiteral("disconnected other 1 idle")};
    }

    void calls()
    {
        QFETCH(QString, answer);
        QFETCH(QStringList, signals_);
        const QString called = QStringLiteral("Узел-1 \"%1\"\n%2");
        QString preset;
        host->factory->script = [&](ScriptedProtocol *protocol) {
            protocol->onAwake = [](ScriptedProtocol *) {};
            protocol->onStart = [&](ScriptedProtocol *p) {
                preset = p->remoteAbonentName + QLatin1Char('/') + p->remoteAbonentFilteredName;
                if (!answer.isEmpty())
                    p->announce(answer);
                QTimer::singleShot(100, p, [p] { p->finished(); });
            };
        };
        QTcpServer abonent;
        QVERIFY(abonent.listen(QHostAddress::LocalHost));
        server->connectToAbonent(called, recordFor(abonent.serverPort()));
        QVERIFY(host->waitForSignal(signals_.last()));
        QStringList heard = host->takeSignals();
        QCOMPARE(heard.size(), signals_.size());
        for (const QString &signal : qAsConst(signals_))
            QVERIFY2(heard.contains(signal), qPrintable(heard.join(QLatin1Char('|'))));
        QCOMPARE(preset, called + QStringLiteral("/узел112"));
        QVERIFY(host->journal.contains(QStringLiteral("0 IP-канал 1: Вызываем абонента '%1' (127.0.0.1:%2)")
                                           .arg(called, QString::number(abonent.serverPort()))));
        QVERIFY(host->journal.contains(QStringLiteral("0 IP-канал 1: Потеряно соединение с абонентом '%1'")
                                           .arg(answer.isEmpty() ? called : answer)));
    }

    void reportsACallThatFails()
    {
        server->connectToAbonent(QStringLiteral("none"), QByteArray());
        server->connectToAbonent(QStringLiteral("refused"), recordFor(freePort()));
        QVERIFY(host->waitForSignal(QStringLiteral("notConnected refused")));
        QVERIFY(host->journal.contains(QStringLiteral(
            "0 IP-канал 1: Не удалось установить соединение с 'refused'. Connection refused")));
        const QByteArray log = TestInstallation::log();
        QVERIFY(
            log.contains("Невозможно вызвать абонента 'none' т.к. настройки не верны. Версия настроек 0"));
        QVERIFY(log.contains("Не удалось установить соединение с 'refused': 0. Connection refused"));
        QVERIFY(QTest::qWaitFor([&] { return host->monitor.shown() == 0; }));

        // An abonent that never answers: its queue is full.
        const int silent = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        QVERIFY(::bind(silent, reinterpret_cast<sockaddr *>(&address), length) == 0 &&
                ::listen(silent, 0) == 0);
        ::getsockname(silent, reinterpret_cast<sockaddr *>(&address), &length);
        QTcpSocket fillers[4];
        for (QTcpSocket &filler : fillers)
            filler.connectToHost(QHostAddress::LocalHost, ntohs(address.sin_port));
        QTest::qWait(50);
        QElapsedTimer clock;
        clock.start();
        server->connectToAbonent(QStringLiteral("silent"), recordFor(ntohs(address.sin_port)));
        QVERIFY(host->waitForSignal(QStringLiteral("notConnected silent")));
        QVERIFY(clock.elapsed() >= 700 && clock.elapsed() < 1500);

        clock.start();
        host->takeSignals();
        server->connectToAbonent(QStringLiteral("cancelled"), recordFor(ntohs(address.sin_port)));
        server->disconnectFromAbonent(QStringLiteral("Cancelled"), -1);
        const QString cancelled =
            QStringLiteral("0 Вызов отменен: Вызываем абонента 'cancelled' (127.0.0.1:%1)")
                .arg(ntohs(address.sin_port));
        QVERIFY(QTest::qWaitFor([&] { return host->journal.contains(cancelled); }));
        QVERIFY2(clock.elapsed() < 500, qPrintable(QString::number(clock.elapsed()))); // not the limit
        QVERIFY(host->takeSignals().isEmpty());
        ::close(silent);
    }

    /// Protocols and connections that end at unusual moments: each ends that one connection only.
    void endsCleanly_data()
    {
        QTest::addColumn<int>("how");
        QTest::newRow("factory refuses") << 0;
        QTest::newRow("peer resets at once") << 1;
        QTest::newRow("finished inside start") << 2;
        QTest::newRow("finished inside stop, stopped before it exists") << 3;
        QTest::newRow("finished twice") << 4;
    }

    void endsCleanly()
    {
        QFETCH(int, how);
        host->factory->refuses = how == 0;
        host->factory->script = [how, this](ScriptedProtocol *protocol) {
            if (how == 2)
                protocol->onStart = [](ScriptedProtocol *p) { p->finished(); };
            if (how == 3)
                protocol->onStart = [this](ScriptedProtocol *) {
                    QMetaObject::invokeMethod(server.get(), "disconnectFromAbonent",
                                              Qt::BlockingQueuedConnection, Q_ARG(QString, QString()),
                                              Q_ARG(int, 1));
                };
            if (how == 4)
                protocol->onDelete = [](ScriptedProtocol *p) { p->finished(); };
        };
        const int before = openDescriptors();
        for (int i = 0; i < 3; ++i) {
            auto client = connectedClient();
            if (how == 1) {
                const linger abort = {1, 0};
                ::setsockopt(int(client->socketDescriptor()), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
                client->abort();
            } else if (how == 4) {
                client->disconnectFromHost();
            }
            QVERIFY(QTest::qWaitFor([&] { return client->state() == QAbstractSocket::UnconnectedState; }));
            QVERIFY(QTest::qWaitFor([&] { return host->monitor.shown() == 0; }));
        }
        host->factory->refuses = false;
        host->factory->script = nullptr;
        QTest::qWait(30);
        QVERIFY(echoes(connectedClient().get(), "still serving"));
        QVERIFY(QTest::qWaitFor([&] { return openDescriptors() == before; }));
    }

    void endsAConnectionThatIsDeadFromTheStart()
    {
        CIpThread worker(server.get(), 99);
        constexpr int neverOpened = 1000;
        QVERIFY(worker.answer(neverOpened));
        QVERIFY(worker.wait(5000));
        QCOMPARE(host->factory->made, 1);
        QCOMPARE(host->monitor.shown(), 0);
    }

    /// Stops that meet a worker in every state. None is held up beyond the wait, and the host lives.
    void stops_data()
    {
        QTest::addColumn<int>("how");
        QTest::addColumn<int>("atMostMs");
        QTest::newRow("idle") << 0 << 300;
        QTest::newRow("deaf") << 1 << 1500;
        QTest::newRow("sleeps in start") << 2 << 1500;
        QTest::newRow("blocks in its destructor") << 3 << 1500;
    }

    void stops()
    {
        QFETCH(int, how);
        QFETCH(int, atMostMs);
        // What a protocol that is left behind still uses has to live as long as it does.
        static QSemaphore released;
        host->factory->script = [how](ScriptedProtocol *protocol) {
            const auto block = [](ScriptedProtocol *) { released.acquire(); };
            protocol->onStop = [](ScriptedProtocol *) {};
            if (how == 2)
                protocol->onStart = block;
            if (how == 3)
                protocol->onDelete = block;
        };
        std::unique_ptr<QTcpSocket> bad = how > 0 ? connectedClient() : nullptr;
        QVERIFY(QTest::qWaitFor([&] { return host->factory->made == (how > 0 ? 1 : 0); }));
        host->factory->script = nullptr;
        std::unique_ptr<QTcpSocket> good = how > 0 ? connectedClient() : nullptr;
        QVERIFY(how == 0 || echoes(good.get(), "neighbour"));
        if (how == 3)
            bad->disconnectFromHost();

        QElapsedTimer clock;
        clock.start();
        QVERIFY(host->stopServer());
        QVERIFY2(clock.elapsed() <= atMostMs, qPrintable(QString::number(clock.elapsed())));
        QVERIFY(!good || QTest::qWaitFor([&] { return good->state() == QAbstractSocket::UnconnectedState; }));
        QVERIFY(!bad || QTest::qWaitFor([&] { return bad->state() == QAbstractSocket::UnconnectedState; }));

        server->start(); // and the same server serves again, with numbers from 1
        host->takeSignals();
        host->factory->script = [](ScriptedProtocol *protocol) {
            protocol->onStart = [](ScriptedProtocol *p) { p->announce(QStringLiteral("again")); };
        };
        QVERIFY(echoes(connectedClient().get(), "again"));
        QVERIFY(host->waitForSignal(QStringLiteral("connected again 1")));
        released.release(how >= 2 ? 1 : 0);
        QTest::qWait(50); // the one left behind ends now, and reaches nobody
    }
};

QTEST_GUILESS_MAIN(TestCIpServer)
#include "tst_cipserver.moc"
