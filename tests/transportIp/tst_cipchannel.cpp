// The byte channel over a real socket: what it counts, how much it holds, how long it waits.
#include "tests/support/fakehost.h"
#include "tests/support/testinstallation.h"
#include "transportIp/cipchannel.h"
#include "transportIp/cipsettings.h"
#include "transportIp/cipsocket.h"

#include <QElapsedTimer>
#include <QTcpServer>
#include <QTest>
#include <QThread>

#include <memory>

class TestCIpChannel : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<RecordingMonitor> monitor;
    std::unique_ptr<QTcpServer> listener;
    std::unique_ptr<QTcpSocket> peer;
    std::unique_ptr<CIpChannel> channel;
    CIpSocket *socket = nullptr; // the channel's
    int handle = 0;

private Q_SLOTS:
    void initTestCase()
    {
        TestInstallation::clean();
        QVERIFY(TestInstallation::writeSettings("[Details]\nmaxWritingTime=300\n"));
    }

    void init()
    {
        gIpSettings.blockSizeKb = 64;
        monitor = std::make_unique<RecordingMonitor>();
        handle = monitor->addConnection(1, QString(), QString());
        listener = std::make_unique<QTcpServer>();
        QVERIFY(listener->listen(QHostAddress::LocalHost));
        socket = new CIpSocket;
        socket->connectToHost(QHostAddress::LocalHost, listener->serverPort());
        QVERIFY(listener->waitForNewConnection(5000));
        peer.reset(listener->nextPendingConnection());
        peer->setParent(nullptr);
        QVERIFY(socket->waitForConnected());
        channel = std::make_unique<CIpChannel>(socket, handle, monitor.get());
    }

    void countsWhatGoesThrough()
    {
        QCOMPARE(channel->kind, 1);
        QVERIFY(channel->isConnected());
        channel->write({});
        channel->write("hello");
        QVERIFY(QTest::qWaitFor([&] { return peer->bytesAvailable() == 5; }));
        QVERIFY(channel->read(4096).isEmpty());
        QCOMPARE(monitor->entry(handle).received, 0);
        peer->write("0123456789");
        QVERIFY(QTest::qWaitFor([&] { return socket->bytesAvailable() == 10; }));
        QCOMPARE(channel->read(4) + channel->read(4096), QByteArray("0123456789"));
        QCOMPARE(monitor->entry(handle).received, 10);
        QCOMPARE(monitor->entry(handle).sent, 5);
    }

    void tellsHowMuchToWriteNext()
    {
        QCOMPARE(channel->idealBlockSize(), 65536);
        channel->write(QByteArray(100000, 'x'));
        QCOMPARE(channel->idealBlockSize(), 65536 - 100000);
        gIpSettings.blockSizeKb = 256; // applies to running connections
        QCOMPARE(channel->idealBlockSize(), 262144 - 100000);
    }

    void deliversMoreThanItHolds()
    {
        const QByteArray data(8 * 1024 * 1024, 'y');
        QThread *sender = QThread::create([&] { channel->write(data); });
        socket->moveToThread(sender);
        sender->start();
        int taken = 0;
        while (taken < data.size() &&
               (sender->isRunning() || peer->bytesAvailable() || peer->waitForReadyRead(1000)))
            taken += peer->waitForReadyRead(10) || peer->bytesAvailable() ? peer->readAll().size() : 0;
        sender->wait();
        delete sender;
        QVERIFY(taken >= data.size() - 1024 * 1024); // the rest is in the queue, whose loop is gone
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
        QVERIFY2(blocks > 16 && blocks < 500,
                 qPrintable(QString::number(blocks))); // bounded, but no less than the bound
        QVERIFY(clock.elapsed() >= 300 && clock.elapsed() < 900);
        QCOMPARE(errors, 0);
        QCOMPARE(socket->state(), QAbstractSocket::UnconnectedState);
        QCOMPARE(socket->bytesToWrite(), 0);
        QCOMPARE(monitor->entry(handle).sent, blocks * block.size()); // also what was lost
        QVERIFY(TestInstallation::log().contains("Не удалось вовремя записать данные в сокет (Network "
                                                 "operation timed out). Соединение будет разорвано."));
        channel->write(block); // and goes on harmlessly
        channel->disconnectFromAbonent();
        QVERIFY(channel->read(10).isEmpty());
    }

    void readsAheadNoMoreThanItHolds()
    {
        peer->write(QByteArray(30 * 1024 * 1024, 'w'));
        QTest::qWait(300);
        QVERIFY(socket->bytesAvailable() <= 1024 * 1024);
        int taken = 0;
        QVERIFY(
            QTest::qWaitFor([&] { return (taken += channel->read(1 << 20).size()) == 30 * 1024 * 1024; }));
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

QTEST_GUILESS_MAIN(TestCIpChannel)
#include "tst_cipchannel.moc"
