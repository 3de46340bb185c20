// The byte channel over a real socket: how much it holds, how long it waits, how it ends.
#include "tests/support/fakehost.h"
#include "transportIp/cipchannel.h"
#include "transportIp/cipsettings.h"
#include "transportIp/cipsocket.h"
#include "transportIp/ctcpserver.h"

#include <QElapsedTimer>
#include <QTcpServer>
#include <QTest>
#include <QThread>

#include <memory>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>

class TestCIpChannel : public QObject
{
    Q_OBJECT

private:
    Recorder monitor;
    QTcpServer listener;
    QTcpSocket *peer = nullptr; // the listener's
    std::unique_ptr<CIpChannel> channel;
    CIpSocket *socket = nullptr; // the channel's

private Q_SLOTS:
    void initTestCase()
    {
        TestInstallation::clean();
        QVERIFY(TestInstallation::writeSettings("[Details]\nmaxWritingTime=300\n"));
        QVERIFY(listener.listen(QHostAddress::LocalHost));
    }

    void init()
    {
        gIpSettings.blockSizeKb = 64;
        monitor.sent = 0;
        socket = new CIpSocket;
        socket->connectToHost(QHostAddress::LocalHost, listener.serverPort());
        QVERIFY(listener.waitForNewConnection(5000) && socket->waitForConnected());
        peer = listener.nextPendingConnection();
        channel = std::make_unique<CIpChannel>(socket, 1, &monitor);
    }

    void tellsHowMuchToWriteNext()
    {
        QCOMPARE(channel->idealBlockSize(), 65536);
        channel->write(QByteArray(100000, 'x'));
        QCOMPARE(channel->idealBlockSize(), 65536 - 100000); // until the loop turns, whoever has the bytes
        gIpSettings.blockSizeKb = 256;                       // applies to running connections
        QCOMPARE(channel->idealBlockSize(), 262144 - 100000);
    }

    void dropsAPeerThatDoesNotRead()
    {
        int errors = 0;
        connect(socket, &QAbstractSocket::errorOccurred, this, [&errors] { ++errors; });
        const QByteArray block(65536, 'z');
        QElapsedTimer clock;
        int blocks = 0;
        for (; blocks < 1000 && channel->isConnected(); ++blocks) {
            clock.start();
            channel->write(block);
        }
        QVERIFY2(blocks > 16 && blocks < 500, QByteArray::number(blocks)); // bounded, but no less than that
        QVERIFY(clock.elapsed() >= 300 && clock.elapsed() < 900);
        QCOMPARE(errors, 0);
        QCOMPARE(socket->state(), QAbstractSocket::UnconnectedState);
        QCOMPARE(socket->bytesToWrite(), 0);
        QCOMPARE(monitor.sent, blocks * block.size()); // also what was lost
        QVERIFY(TestInstallation::log().contains("Не удалось вовремя записать данные в сокет (Network "
                                                 "operation timed out). Соединение будет разорвано."));
        channel->write(block); // and goes on harmlessly
        channel->disconnectFromAbonent();
        QVERIFY(channel->read(10).isEmpty());
    }

    // Bytes are kept from Qt for who looks at every turn; who does not must hear of the end all the same.
    void hearsOfTheEndBehindUnreadBytes()
    {
        peer->write("0123456789");
        peer->disconnectFromHost();
        QVERIFY(QTest::qWaitFor([&] { return !channel->isConnected(); }));
        QCOMPARE(channel->read(20), QByteArray("0123456789"));
    }

    void hearsOfTheEndWhileLookingAtEveryTurn()
    {
        QByteArray taken;
        connect(QCoreApplication::eventDispatcher(), &QAbstractEventDispatcher::awake, socket,
                [&] { taken += channel->read(4); });
        peer->write("0123456789");
        peer->disconnectFromHost();
        QVERIFY(QTest::qWaitFor([&] { return !channel->isConnected(); }));
        QCOMPARE(taken, QByteArray("0123456789"));
    }

    void takesCallersWhoseAnswersLeaveAtOnce()
    {
        CTcpServer server;
        QVERIFY(server.listenOn(0));
        QTcpSocket caller;
        caller.connectToHost(QHostAddress::LocalHost, server.serverPort());
        QVERIFY(QTest::qWaitFor([&] { return !server.pendingDescriptors.isEmpty(); }));
        int isOn = 0;
        socklen_t size = sizeof isOn;
        getsockopt(int(server.pendingDescriptors.first()), IPPROTO_TCP, TCP_NODELAY, &isOn, &size);
        QVERIFY(isOn);
    }

    void waitsWithoutADescriptorOfItsOwn()
    {
        rlimit limit = {};
        getrlimit(RLIMIT_NOFILE, &limit);
        const rlimit none = {3, limit.rlim_max};
        QThread worker;
        worker.setEventDispatcher(new CConnectionDispatcher);
        setrlimit(RLIMIT_NOFILE, &none);
        worker.start();
        QThread::msleep(50);
        worker.quit();
        const bool hasEnded = worker.wait(2000);
        setrlimit(RLIMIT_NOFILE, &limit);
        QVERIFY(hasEnded);
    }

    void endsTheConnection()
    {
        channel->write("last");
        channel->disconnectFromAbonent();
        QVERIFY(!channel->isConnected());
        QVERIFY(QTest::qWaitFor([&] { return peer->state() == QAbstractSocket::UnconnectedState; }));
        QCOMPARE(peer->readAll(), QByteArray("last"));
    }
};

int main(int argc, char **argv)
{
    QCoreApplication::setEventDispatcher(new CConnectionDispatcher); // as a worker's
    const QCoreApplication application(argc, argv);
    TestCIpChannel test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_cipchannel.moc"
