// The byte channel over a real socket: how much it holds, how long it waits, how it ends.
#include "tests/support/fakehost.h"
#include "transportIp/cipchannel.h"
#include "transportIp/cipsettings.h"
#include "transportIp/cipsocket.h"
#include "transportIp/ctcpserver.h"

#include <QTcpServer>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <cerrno>
#include <memory>
#include <thread>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

/// The other end without Qt: its calls wait, and it may be used from another thread.
class BlockingPeer
{
public:
    explicit BlockingPeer(QTcpSocket *socket) : descriptor(dup(int(socket->socketDescriptor())))
    {
        fcntl(descriptor, F_SETFL, 0);
        delete socket;
    }
    ~BlockingPeer() { close(false); }

    int send(const QByteArray &bytes) const
    {
        return int(::send(descriptor, bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL));
    }

    /// Up to the end of the connection or @a most bytes.
    QByteArray receive(int most)
    {
        QByteArray bytes(most, '\0');
        const auto size = ::recv(descriptor, bytes.data(), size_t(most), MSG_WAITALL);
        lastError = size < 0 ? errno : 0;
        return bytes.left(int(size));
    }

    void close(bool withReset)
    {
        const linger now = {1, 0};
        if (withReset)
            setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &now, sizeof now);
        if (descriptor >= 0)
            ::close(descriptor);
        descriptor = -1;
    }

    int lastError = 0;

private:
    int descriptor;
};

class TestCIpChannel : public QObject
{
    Q_OBJECT

private:
    /// @return how many bytes the system holds for the channel
    int arrivedBytes() const
    {
        int bytes = 0;
        ioctl(int(socket->socketDescriptor()), FIONREAD, &bytes);
        return bytes;
    }

    /// Turns the loop, which only the socket wakes, until something is true, or for 30 s.
    template <typename Condition>
    void turnUntil(Condition condition)
    {
        bool isOver = false;
        QTimer::singleShot(30000, socket, [&isOver] { isOver = true; });
        while (!condition() && !isOver)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }

    Recorder monitor;
    QTcpServer listener;
    QTcpSocket *peer = nullptr; // the listener's
    std::unique_ptr<CIpChannel> channel;
    CIpSocket *socket = nullptr; // the channel's

private Q_SLOTS:
    void initTestCase()
    {
        TestInstallation::clean();
        QVERIFY(TestInstallation::writeSettings("[Details]\nmaxWritingTime=2000\n"));
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
        int blocks = 0;
        for (; blocks < 1000 && channel->isConnected(); ++blocks)
            channel->write(block);
        QVERIFY2(blocks > 16 && blocks < 500, QByteArray::number(blocks)); // bounded, but no less than that
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

    void holdsUpAPeerThatIsNotRead()
    {
        peer->setSocketOption(QAbstractSocket::SendBufferSizeSocketOption, 65536);
        constexpr int most = 32 * 1024 * 1024; // much more than the system takes
        peer->write(QByteArray(most, 'g'));
        qint64 left = most;
        QVERIFY2(soon([&] { // until it stands still
                     QTest::qWait(300);
                     return std::exchange(left, peer->bytesToWrite()) == peer->bytesToWrite();
                 }),
                 "its bytes stop going");
        QVERIFY2(left > most / 2 && channel->isConnected(), "most of them wait at the other side");
    }

    void hearsOfTheEndBehindUnreadBytes_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<bool>("isReset");
        for (const int size : {0, 10, 5000, 50000}) {
            QTest::addRow("%d bytes", size) << size << false;
            QTest::addRow("%d bytes and a reset", size) << size << true;
        }
    }

    void hearsOfTheEndBehindUnreadBytes()
    {
        QFETCH(int, size);
        QFETCH(bool, isReset);
        BlockingPeer other(peer);
        const QByteArray bytes(size, 'u');
        QCOMPARE(other.send(bytes), size);
        QVERIFY(soon([&] { return arrivedBytes() == size; }));
        other.close(isReset);
        turnUntil([&] { return !channel->isConnected(); });
        QVERIFY(!channel->isConnected());
        QCOMPARE(channel->read(size + 1), bytes);
    }

    void hearsOfTheEndWhileLookingAtEveryTurn()
    {
        QByteArray taken;
        connect(QCoreApplication::eventDispatcher(), &QAbstractEventDispatcher::awake, socket,
                [&] { taken += channel->read(4); });
        peer->write("0123456789");
        peer->disconnectFromHost();
        QVERIFY(soon([&] { return !channel->isConnected(); }));
        QCOMPARE(taken, QByteArray("0123456789"));
    }

    // A protocol that only looks when it is woken would wait for ever.
    void wakesWhoeverHasWrittenInVain()
    {
        BlockingPeer(peer).close(true);
        QTest::qSleep(50); // the reset arrives
        int turns = 0;
        const auto dispatcher = QCoreApplication::eventDispatcher();
        connect(dispatcher, &QAbstractEventDispatcher::awake, socket, [&] {
            if (turns++ == 0)
                channel->write("in vain");
            else
                dispatcher->interrupt();
        });
        bool isOver = false;
        QTimer::singleShot(20000, socket, [&isOver] { isOver = true; });
        while (turns < 2)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        QVERIFY2(!isOver && !channel->isConnected(), "the end is seen in the next turn");
    }

    // Neither reads before all of its own is written.
    void twoWritersGetThrough()
    {
        const QByteArray bytes(16 * 1024 * 1024, 'w'); // more than the system takes
        BlockingPeer other(peer);
        QByteArray received;
        std::thread writer([&] {
            other.send(bytes);
            received = other.receive(bytes.size());
        });
        channel->write(bytes);
        QByteArray taken = channel->read(bytes.size());
        const int firstSize = taken.size();
        turnUntil([&] {
            taken += channel->read(300000);
            return taken.size() >= bytes.size();
        });
        writer.join();
        QCOMPARE(firstSize, 1024 * 1024); // what one read may give
        QVERIFY(taken == bytes && received == bytes);
    }

    void saysFarewellInOrder_data()
    {
        QTest::addColumn<bool>("disconnects");
        QTest::newRow("by disconnecting") << true;
        QTest::newRow("by the end of the protocol") << false;
    }

    // Closing with input unread would reset the connection.
    void saysFarewellInOrder()
    {
        QFETCH(bool, disconnects);
        BlockingPeer other(peer);
        other.send(QByteArray(50000, 'q'));
        QVERIFY(soon([&] { return arrivedBytes() == 50000; }));
        QByteArray answer;
        std::thread reader([&] {
            answer = other.receive(100);
            other.receive(1); // the end, or the error of a reset
            other.close(false);
        });
        channel->write("the last answer");
        if (disconnects)
            channel->disconnectFromAbonent();
        else
            channel.reset();
        reader.join();
        QCOMPARE(answer, QByteArray("the last answer"));
        QCOMPARE(other.lastError, 0);
        QVERIFY(!channel || (!channel->isConnected() && channel->read(50001).size() == 50000));
    }

    void takesCallersWhoseAnswersLeaveAtOnce()
    {
        CTcpServer server;
        QVERIFY(server.listenOn(0));
        QTcpSocket caller;
        caller.connectToHost(QHostAddress::LocalHost, server.serverPort());
        QVERIFY(soon([&] { return !server.pendingDescriptors.isEmpty(); }));
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
        const bool hasEnded = worker.wait(30000);
        setrlimit(RLIMIT_NOFILE, &limit);
        QVERIFY(hasEnded);
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
