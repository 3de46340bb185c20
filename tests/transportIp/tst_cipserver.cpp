// The server with its workers, driven as a host does: what is reported, in which order, to whom.
#include "tests/support/fakehost.h"
#include "tests/support/messagecatcher.h"

#include "common/directorylayout.h"
#include "transportIp/cipserver.h"
#include "transportIp/cipsettings.h"

#include <QElapsedTimer>
#include <QTcpServer>
#include <QTest>

#include <sys/socket.h>

namespace {

QByteArray recordFor(int port)
{
    return AbonentIpSettings{"127.0.0.1"_s, port}.toByteArray();
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
        return {"0 IP-канал: Запуск"_s, "0 IP-канал: TCP сервер успешно запущен на %1 порту"_s.arg(port)};
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
        QCOMPARE(host->monitor.state(), "Работает"_s);
        QCOMPARE(host->journal.take(), journalAfterStart());
    }

    void cleanup()
    {
        QVERIFY(host->stopServer());
        QCOMPARE(host->monitor.state(), "Выключен"_s);
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
            "Ошибка запуска TCP сервера на %1 порту. The bound address is already in use"_s.arg(port);
        QCOMPARE(host->monitor.state(), text);
        QVERIFY(host->journal.contains("2 IP-канал: "_s + text));

        const auto *retry = server->findChild<QTimer *>();
        QVERIFY(retry->isActive() && retry->interval() == 30000);
        QVERIFY(host->stopServer());
        QVERIFY(!retry->isActive());
        server->start();
        QVERIFY(retry->isActive());
        occupant.close();
        QVERIFY(QMetaObject::invokeMethod(server.get(), "tryListen")); // what the timer does
        QCOMPARE(host->monitor.state(), "Работает"_s);
        QVERIFY(!retry->isActive());
    }

    void numbersAndReusesWorkers()
    {
        host->factory->script = [](ScriptedProtocol *protocol) {
            protocol->onStart = [](ScriptedProtocol *p) { p->announce(p->label); };
        };
        auto first = connectedClient();
        QVERIFY(host->waitForSignal("connected IP-канал 1 1"_s));
        auto second = connectedClient();
        QVERIFY(host->waitForSignal("connected IP-канал 2 2"_s));
        QVERIFY(echoes(first.get(), "to one") && echoes(second.get(), QByteArray(300000, 'b')));
        QCOMPARE(host->monitor.entry(2).label, "1 IP-канал 2"_s);
        QCOMPARE(host->monitor.entry(2).states, (QStringList{"Входящее соединение от 127.0.0.1"_s,
                                                             "Установлено соединение с 'IP-канал 2'"_s}));
        QCOMPARE(host->monitor.entry(2).received, 300000);

        server->keepAliveConnection(2);
        server->keepAliveConnection(77);
        first.reset();
        QVERIFY(host->waitForSignal("disconnected IP-канал 1 1 useful"_s));
        QTest::qWait(20);
        auto third = connectedClient(); // takes the first worker
        QVERIFY(host->waitForSignal("connected IP-канал 1 1"_s));
        QVERIFY(!third->waitForReadyRead(1));
        QVERIFY(host->monitor.entry(1).removed && !host->monitor.entry(3).removed);

        MessageCatcher messages;
        server->disconnectFromAbonent("nobody"_s, 9);
        QCOMPARE(messages.count(QtDebugMsg), 3); // a line for each worker passed over, and the log's echo
        server->disconnectFromAbonent("ip КАНАЛ-2"_s, -1);
        QVERIFY(host->waitForSignal("disconnected IP-канал 2 2 useful"_s));
    }

    /// What the host hears of a call, by what happens to it.
    void calls_data()
    {
        QTest::addColumn<QString>("answer"); // the name that the protocol finds at the other end
        QTest::addColumn<QStringList>("signals_");
        const QString called = "Узел-1 \"%1\"\n%2"_s;
        QTest::newRow("same abonent")
            << "узел1 12"_s << QStringList{"connected узел1 12 1"_s, "disconnected узел1 12 1 idle"_s};
        QTest::newRow("never named") << QString() << QStringList{"disconnected %1 1 idle"_s.arg(called)};
        QTest::newRow("somebody else") << "other"_s
                                       << QStringList{"connected other 1"_s, "notConnected %1"_s.arg(called),
                                                      "disconnected other 1 idle"_s};
    }

    void calls()
    {
        QFETCH(QString, answer);
        QFETCH(QStringList, signals_);
        const QString called = "Узел-1 \"%1\"\n%2"_s;
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
        QCOMPARE(preset, called + "/узел112"_s);
        QVERIFY(host->journal.contains("0 IP-канал 1: Вызываем абонента '%1' (127.0.0.1:%2)"_s.arg(
            called, QString::number(abonent.serverPort()))));
        QVERIFY(host->journal.contains(
            "0 IP-канал 1: Потеряно соединение с абонентом '%1'"_s.arg(answer.isEmpty() ? called : answer)));
    }

    void reportsACallThatFails()
    {
        server->connectToAbonent("none"_s, QByteArray());
        server->connectToAbonent("refused"_s, recordFor(freePort()));
        QVERIFY(host->waitForSignal("notConnected refused"_s));
        QVERIFY(host->journal.contains(QStringLiteral(
            "0 IP-канал 1: Не удалось установить соединение с 'refused'. Connection refused")));
        const QByteArray log = TestInstallation::log();
        QVERIFY(
            log.contains("Невозможно вызвать абонента 'none' т.к. настройки не верны. Версия настроек 0"));
        QVERIFY(log.contains("Не удалось установить соединение с 'refused': 0. Connection refused"));
        QVERIFY(QTest::qWaitFor([&] { return host->monitor.shown() == 0; }));

        // An abonent that never answers: its queue is full.
        QTcpServer silent;
        QVERIFY(silent.listen(QHostAddress::LocalHost));
        silent.pauseAccepting();
        QCOMPARE(::listen(int(silent.socketDescriptor()), 0), 0);
        QTcpSocket fillers[4];
        for (QTcpSocket &filler : fillers)
            filler.connectToHost(QHostAddress::LocalHost, silent.serverPort());
        QTest::qWait(50);
        QElapsedTimer clock;
        clock.start();
        server->connectToAbonent("silent"_s, recordFor(silent.serverPort()));
        QVERIFY(host->waitForSignal("notConnected silent"_s));
        QVERIFY(clock.elapsed() >= 700 && clock.elapsed() < 1500);

        server->connectToAbonent("cancelled"_s, recordFor(silent.serverPort()));
        server->disconnectFromAbonent("Cancelled"_s, -1);
        const QString cancelled =
            "0 Вызов отменен: Вызываем абонента 'cancelled' (127.0.0.1:%1)"_s.arg(silent.serverPort());
        QVERIFY(QTest::qWaitFor([&] { return host->journal.contains(cancelled); }));
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
};

QTEST_GUILESS_MAIN(TestCIpServer)
#include "tst_cipserver.moc"
