// The server with its workers, driven as a host does: what is reported, in which order, to whom.
#include "tests/support/fakehost.h"
#include "tests/support/messagecatcher.h"

#include "common/directorylayout.h"
#include "common/functiontrace.h"
#include "transportIp/cipserver.h"
#include "transportIp/cipsettings.h"
#include "transportIp/main.h"

#include <QDir>
#include <QScopeGuard>
#include <QSemaphore>
#include <QTcpServer>
#include <QTest>

#include <future>

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

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
        if (!client->waitForConnected(30000))
            qWarning("client is not connected");
        return client;
    }

    QStringList journalAfterStart()
    {
        return {"journal 0 IP-канал: Запуск"_s,
                "journal 0 IP-канал: TCP сервер успешно запущен на %1 порту"_s.arg(port)};
    }

private Q_SLOTS:
    void initTestCase()
    {
        TestInstallation::clean();
        QVERIFY(TestInstallation::writeSettings(
            "[Details]\ntransportIpConnectTimeout=700\nmaxWritingTime=300\n"));
    }

    void init()
    {
        server = std::make_unique<CIpServer>();
        host = std::make_unique<FakeHost>(server.get());
        port = freePort();
        configure({true, 3, port, 128});
        server->start();
        QCOMPARE(host->take("monitor 0"_s).last(), "monitor 0: Работает"_s);
        QCOMPARE(host->take("journal"_s), journalAfterStart());
    }

    void cleanup()
    {
        QVERIFY(host->stopServer());
        QCOMPARE(host->take("monitor 0"_s).last(), "monitor 0: Выключен"_s);
        server.reset();
        host.reset();
    }

    void loadsSettings()
    {
        QCOMPARE(gIpSettings.blockSizeKb, 128);
        configure({false, 0, port, 1});
        server->settingsWasChanged();
        QVERIFY(!server->hasFreeChannel() && !server->canCheckOnline());
        QVERIFY(host->take("journal"_s).isEmpty()); // the port is the same: no restart

        const int formerPort = std::exchange(port, freePort());
        configure({true, 3, port, 1});
        server->settingsWasChanged();
        QCOMPARE(host->take("journal"_s), journalAfterStart());
        QVERIFY(echoes(connectedClient().get(), "new port"));
        QTcpServer former;
        QVERIFY(former.listen(QHostAddress::AnyIPv4, quint16(formerPort)));

        configure({false, 3, port, 1});
        server->settingsWasChanged();
        QVERIFY(host->stopServer());
        const QString file = Global::channelIpSettingsFilePath();
        const QByteArray logged = TestInstallation::log();
        QVERIFY(QFile::rename(file, file + ".old"_s)); // not the trace of a save
        server->settingsWasChanged();                  // defaults, but for what has no default
        QVERIFY(!server->canCheckOnline());
        QCOMPARE(gIpSettings.port, 18001);
        QCOMPARE(gIpSettings.blockSizeKb, 64);
        QCOMPARE(TestInstallation::log(), logged);

        QVERIFY(QDir().mkdir(file));
        server->settingsWasChanged();
        QVERIFY(QDir().rmdir(file));
        QVERIFY(
            QString::fromUtf8(TestInstallation::log())
                .contains(
                    "Не удалось открыть файл настроек IP канала для чтения %1. file to open is a directory\n"_s
                        .arg(file)));

        QVERIFY(TestInstallation::write(file, QByteArray("\0\0\0\1", 4)));
        server->settingsWasChanged();
        QVERIFY(TestInstallation::log().contains(
            "Ошибка чтения настроек IP канала. Версия настроек 1 не совпадает с текущей 2"));
    }

    void retriesToListen()
    {
        QVERIFY(host->stopServer());
        host->take("journal"_s);
        QTcpServer occupant;
        QVERIFY(occupant.listen(QHostAddress::AnyIPv4, quint16(port)));
        server->start();
        const QString text =
            "Ошибка запуска TCP сервера на %1 порту. The bound address is already in use"_s.arg(port);
        QCOMPARE(host->take("monitor 0"_s).last(), "monitor 0: "_s + text);
        QVERIFY(host->heard("journal 2 IP-канал: "_s + text));

        const auto timers = server->findChildren<QTimer *>();
        const auto retry = std::find_if(timers.cbegin(), timers.cend(),
                                        [](const QTimer *timer) { return timer->interval() == 30000; });
        QVERIFY(retry != timers.cend() && (*retry)->isActive());
        QVERIFY(host->stopServer());
        QVERIFY(!(*retry)->isActive());
        server->start();
        QVERIFY((*retry)->isActive());
        occupant.close();
        QVERIFY(QMetaObject::invokeMethod(server.get(), "tryListen")); // what the timer does
        QCOMPARE(host->take("monitor 0"_s).last(), "monitor 0: Работает"_s);
        QVERIFY(!(*retry)->isActive());
    }

    void numbersAndReusesWorkers()
    {
        host->factory->script = [](ScriptedProtocol *protocol) {
            protocol->onStart = [](ScriptedProtocol *p) {
                volatile char local[2 * 1024 * 1024]; // a protocol may have so much on its stack
                local[0] = local[sizeof local - 1] = 1;
                p->announce(p->label);
            };
        };
        auto first = connectedClient();
        QVERIFY(host->waitFor("connected IP-канал 1 1"_s));
        auto second = connectedClient();
        QVERIFY(host->waitFor("connected IP-канал 2 2"_s));
        QVERIFY(echoes(first.get(), "to one") && echoes(second.get(), QByteArray(300000, 'b')));
        QCOMPARE(host->take("monitor 2"_s),
                 (QStringList{"monitor 2: 1 IP-канал 2 Входящее соединение от 127.0.0.1"_s,
                              "monitor 2: Установлено соединение с 'IP-канал 2'"_s}));
        QCOMPARE(host->received, 300006);
        host->take("connected"_s);

        first.reset();
        QVERIFY(host->waitFor("disconnected IP-канал 1 1 useful"_s));
        QTest::qWait(20);
        auto third = connectedClient(); // takes the first worker
        QVERIFY(host->waitFor("connected IP-канал 1 1"_s));
        QVERIFY(!third->waitForReadyRead(1));
        QVERIFY(host->heard("monitor 1: removed"_s) && !host->heard("monitor 3: removed"_s));

        server->disconnectFromAbonent("ip КАНАЛ-2"_s, -1);
        QVERIFY(host->waitFor("disconnected IP-канал 2 2 useful"_s));
    }

    /// What the host hears of a call, by the name that the protocol finds at the other end.
    void calls()
    {
        const QString called = "Узел-1 \"%1\"\n%2"_s;
        const QPair<QString, QStringList> rows[] = {
            {"узел1 12"_s, {"connected узел1 12 1"_s, "disconnected узел1 12 1 idle"_s}},
            {QString(), {"disconnected %1 1 idle"_s.arg(called)}},
            {"other"_s,
             {"connected other 1"_s, "notConnected %1"_s.arg(called), "disconnected other 1 idle"_s}}};
        for (const auto &[answer, heard] : rows) {
            QString preset;
            host->factory->script = [&, name = answer](ScriptedProtocol *protocol) {
                protocol->onAwake = [](ScriptedProtocol *) {};
                protocol->onStart = [&, name](ScriptedProtocol *p) {
                    preset = p->remoteAbonentName + QLatin1Char('/') + p->remoteAbonentFilteredName;
                    if (!name.isEmpty())
                        p->announce(name);
                    QTimer::singleShot(100, p, [p] { p->finished(); });
                };
            };
            QTcpServer abonent;
            QVERIFY(abonent.listen(QHostAddress::LocalHost));
            server->connectToAbonent(called, recordFor(abonent.serverPort()));
            QVERIFY2(host->waitFor(heard.last()), qPrintable(heard.last()));
            for (const QString &text : heard)
                QCOMPARE(host->take(text), QStringList(text));
            QVERIFY2(host->take("connected"_s).isEmpty() && host->take("notConnected"_s).isEmpty(),
                     "nothing more");
            QCOMPARE(preset, called + "/узел112"_s);
            QVERIFY(host->heard("journal 0 IP-канал 1: Вызываем абонента '%1' (127.0.0.1:%2)"_s.arg(
                called, QString::number(abonent.serverPort()))));
            QVERIFY(host->heard("journal 0 IP-канал 1: Потеряно соединение с абонентом '%1'"_s.arg(
                answer.isEmpty() ? called : answer)));
            QVERIFY2(soon([&] { return host->shown == 0; }), "the monitor's entry goes");
            QTest::qWait(50); // the worker is free again
        }
    }

    void reportsACallThatFails()
    {
        server->connectToAbonent("none"_s, QByteArray());
        server->connectToAbonent("refused"_s, recordFor(freePort()));
        QVERIFY(host->waitFor("notConnected refused"_s));
        QVERIFY(host->heard(
            "journal 0 IP-канал 1: Не удалось установить соединение с 'refused'. Connection refused"_s));
        const QByteArray log = TestInstallation::log();
        QVERIFY(
            log.contains("Невозможно вызвать абонента 'none' т.к. настройки не верны. Версия настроек 0"));
        QVERIFY(log.contains("Не удалось установить соединение с 'refused': 0. Connection refused"));
        QVERIFY(soon([&] { return host->shown == 0; }));

        // An abonent that never answers: its queue is full.
        QTcpServer silent;
        QVERIFY(silent.listen(QHostAddress::LocalHost));
        silent.pauseAccepting();
        QCOMPARE(::listen(int(silent.socketDescriptor()), 0), 0);
        QTcpSocket fillers[4];
        for (QTcpSocket &filler : fillers)
            filler.connectToHost(QHostAddress::LocalHost, silent.serverPort());
        QTest::qWait(50);
        server->connectToAbonent("silent"_s, recordFor(silent.serverPort()));
        QVERIFY(host->waitFor("notConnected silent"_s)); // after the limit that is set, not the system's

        server->connectToAbonent("cancelled"_s, recordFor(silent.serverPort()));
        server->disconnectFromAbonent("Cancelled"_s, -1);
        const QString cancelled =
            "journal 0 Вызов отменен: Вызываем абонента 'cancelled' (127.0.0.1:%1)"_s.arg(
                silent.serverPort());
        QVERIFY(host->waitFor(cancelled));
    }

    /// A stop and a keep-alive that come at any stage of a connection: each reaches the protocol once.
    void requests()
    {
        for (const bool isServerStop : {false, true}) {
            for (const char *stage : {"adopting", "createProtocol", "start", "work"}) {
                request(QString::fromLatin1(stage), isServerStop);
                if (QTest::currentTestFailed())
                    qFatal("%s, by %s", stage, isServerStop ? "stop" : "disconnect");
                server->start();
            }
        }
    }

private:
    void request(const QString &stage, bool isServerStop)
    {
        QSemaphore reached, mayGoOn;
        std::atomic<int> stops{0};
        std::atomic<bool> isKeptAlive{false}, hasFinished{false};
        std::atomic<QThread *> starter{nullptr}, stopper{nullptr};
        const auto reach = [&](const QString &here) {
            if (here != stage)
                return;
            reached.release();
            while (!mayGoOn.tryAcquire(1, 10)) {
                if (host->heard("monitor 0: Выключение"_s))
                    return QThread::msleep(100); // the stop is asking by now
            }
        };
        host->factory->script = [&](ScriptedProtocol *protocol) {
            protocol->onStart = [&](ScriptedProtocol *) {
                starter = QThread::currentThread();
                reach("start"_s);
            };
            protocol->onStop = [&](ScriptedProtocol *p) {
                ++stops;
                stopper = QThread::currentThread();
                QTimer::singleShot(50, p, [&, p] {
                    hasFinished = true;
                    Q_EMIT p->finished();
                });
            };
            protocol->onDelete = [&](ScriptedProtocol *p) { isKeptAlive = p->keepAliveRequested; };
            reach("createProtocol"_s);
        };
        const MessageCatcher messages([&](const QString &text) {
            if (text.contains("Входящее соединение"_s))
                reach("adopting"_s);
        });
        const auto client = connectedClient();
        QVERIFY(soon([&] { return stage == "work"_s ? starter != nullptr : reached.available(); }));

        server->keepAliveConnection(1);
        if (isServerStop)
            QVERIFY(host->stopServer());
        else
            server->disconnectFromAbonent(QString(), 1);
        mayGoOn.release();
        QVERIFY(soon([&] { return hasFinished && host->shown == 0; }));
        QVERIFY(host->stopServer()); // joins the thread
        QCOMPARE(stops, 1);
        const bool isEarly = stage == "adopting"_s; // no protocol to be told; then it is told when it starts
        QCOMPARE(stopper.load(), isEarly ? starter.load() : QThread::currentThread());
        QCOMPARE(isKeptAlive, !isEarly);
    }

private Q_SLOTS:
    void mayBeMovedBeforeItStarts()
    {
        QThread home;
        home.start();
        auto moved = std::make_unique<CIpServer>();
        FakeHost movedHost(moved.get());
        const auto atHome = [&](auto act) {
            std::promise<void> done; // the thread sanitizer does not know how Qt waits
            QMetaObject::invokeMethod(moved.get(), [&] {
                act();
                done.set_value();
            });
            done.get_future().wait();
        };
        configure({true, 3, port = freePort(), 128});
        moved->moveToThread(&home);
        atHome([&] { moved->start(); });
        const bool isServing = echoes(connectedClient().get(), "at home");
        atHome([&] { moved->stop(); });
        const bool hasStopped = movedHost.waitFor("monitor 0: Выключен"_s);
        home.quit();
        home.wait();
        QVERIFY2(isServing && hasStopped, "a server in another thread serves and stops");
    }

    /// Every accept error is told, of our own refusals the first and the last.
    void reportsWhatItCannotTake()
    {
        const QString told = "journal 0 IP-канал: Ошибка приема входящего соединения: "_s;
        const QString refused = told + "Too many open files"_s;
        for (int i = 0; i < 3; ++i)
            Q_EMIT server->findChild<QTcpServer *>()->acceptError(QAbstractSocket::SocketResourceError);
        QCOMPARE(host->take(told).size(), 3);
        QCOMPARE(TestInstallation::log().count("Ошибка приема входящего соединения: 4. "), 3);

        rlimit limit = {};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        const auto restore = qScopeGuard([limit] { ::setrlimit(RLIMIT_NOFILE, &limit); });
        constexpr int reserve = 8; // what we leave to the rest of the process
        const int next = ::dup(0);
        ::close(next);
        limit.rlim_cur = rlim_t(next + 1 + reserve);
        ::setrlimit(RLIMIT_NOFILE, &limit);
        const auto refuse = [&] {
            const auto client = connectedClient();
            return soon([&] { return client->state() == QAbstractSocket::UnconnectedState; });
        };
        QVERIFY2(refuse() && host->waitFor(refused), "the first refusal is told");
        QCOMPARE(host->take(told), QStringList(refused));
        QVERIFY2(refuse() && host->waitFor(refused), "the next is told when a second has passed");
        QCOMPARE(host->take(told), QStringList(refused));
        QVERIFY2(refuse() && host->stopServer(), "the last is told at the stop");
        QCOMPARE(host->take(told), QStringList(refused));
    }
};

QTEST_GUILESS_MAIN(TestCIpServer)
#include "tst_cipserver.moc"
