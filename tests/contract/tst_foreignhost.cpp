// The built plug-in, driven by a host that shares no header and no object with it and even exports
// symbols of the same names. Pins the binary contract: slots, members, meta-objects, DebugData.
#include "foreigncontract.h"
#include "tests/support/testinstallation.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QDataStream>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <atomic>
#include <memory>

#include <dlfcn.h>

// The host's own copies of what the plug-in has too; the plug-in must use neither.
enum DebugLevel
{
    SomeLevel
};
enum DebugFlag
{
    SomeFlag
};
std::atomic<int> hostsDebugCalls{0};
Q_DECL_EXPORT void debug(QString, const QString &, DebugLevel, DebugFlag)
{
    ++hostsDebugCalls;
}
struct ChannelIpSettings
{
    bool canCheckOnline;
    int maxConnections, port, blockSizeKb;
};
extern Q_DECL_EXPORT ChannelIpSettings gIpSettings;
ChannelIpSettings gIpSettings = {false, -1, -2, -3};

namespace {

class Recorder : public CChannelMonitor, public CJournal
{
public:
    int addConnection(int kind, const QString &label, const QString &) override
    {
        return note("add %1 "_s.arg(kind) + label);
    }
    void removeConnection(int handle) override { note("remove %1"_s.arg(handle)); }
    void setState(int handle, const QString &) override { note("state %1"_s.arg(handle)); }
    void addReceived(int handle, int) override { note("received %1"_s.arg(handle)); }
    void addSent(int handle, int) override { note("sent %1"_s.arg(handle)); }
    void addRecord(int kind, const QString &source, const QString &text) override
    {
        note("record %1 %2: "_s.arg(kind).arg(source) + text);
    }

    int note(const QString &call)
    {
        const QMutexLocker locker(&mutex);
        calls << call;
        return 41;
    }
    QMutex mutex;
    QStringList calls;
};

class Protocol : public CAbstractProtocol
{
public:
    explicit Protocol(CChannel *c) : CAbstractProtocol(c) {}
    ~Protocol() override { sawKeepAlive = keepAliveRequested; }
    void start() override
    {
        CAbstractProtocol::start();
        sawLabel = label + QLatin1Char('/') + remoteAbonentName + QLatin1Char('/') +
                   remoteAbonentFilteredName + QLatin1Char('/') + QString::number(channel->number);
        if (remoteAbonentName.isEmpty())
            remoteAbonentName = "Caller"_s;
        emit remoteAbonentNameChanged(remoteAbonentName);
        connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake, this, [this] {
            const QByteArray bytes = channel->read(channel->idealBlockSize());
            if (!bytes.isEmpty()) {
                wasUseful = true;
                channel->write(bytes);
            }
            if (!channel->isConnected())
                emit finished();
        });
    }
    void stop() override
    {
        QMetaObject::invokeMethod(this, [this] {
            channel->disconnectFromAbonent();
            emit finished();
        });
    }

    static QString sawLabel;
    static std::atomic<bool> sawKeepAlive;
};
QString Protocol::sawLabel;
std::atomic<bool> Protocol::sawKeepAlive{false};

std::atomic<int> factoriesDeleted{0};
class Factory : public CProtocolFactory
{
public:
    ~Factory() override { ++factoriesDeleted; }
    CAbstractProtocol *createProtocol(CChannel *channel) override { return new Protocol(channel); }
};

template <typename... Values>
QByteArray streamed(const Values &...values)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    (stream << ... << values);
    return bytes;
}

} // namespace

class TestForeignHost : public QObject
{
    Q_OBJECT

Q_SIGNALS:
    // What the server signals from connection threads, in this one: a spy is for one thread only.
    void hasEnded(const QString &abonentName, int connectionId, bool wasUseful);
    void isRefused(const QString &abonentName);

private:
    void *library = nullptr;
    DebugData logging;

    template <typename Function>
    Function entry(const char *name)
    {
        return reinterpret_cast<Function>(dlsym(library, name));
    }

private slots:
    void initTestCase()
    {
        TestInstallation::clean();
        library = dlopen(PLUGIN_FILE, RTLD_NOW | RTLD_GLOBAL);
        QVERIFY2(library, dlerror());
        QCOMPARE(entry<int (*)()>("apiVersion")(), 16);
        entry<void (*)(DebugData *)>("initDebug")(&logging);
    }

    void pluginAndServer()
    {
        auto *plugin = entry<CChannelPlugin *(*)()>("instance")();
        auto *other = entry<CChannelPlugin *(*)()>("instance")();
        QVERIFY(plugin != other && plugin->type() == 1 && plugin->name() == "IP-канал"_s);
        int delay = 30;
        plugin->incCallTimeout(&delay);
        plugin->decCallTimeout(&delay);
        QCOMPARE(delay, 30);

        std::unique_ptr<CChannelServer> server(plugin->create());
        for (CChannelPlugin *one : {plugin, other, static_cast<CChannelPlugin *>(nullptr)})
            entry<void (*)(CChannelPlugin *)>("deleteInstance")(one); // servers may outlive them
        QVERIFY(server->first == 1 && server->monitorHandle == 0);
        QVERIFY(!server->protocolFactory && !server->monitor && !server->journal);
        server->protocolFactory = new Factory;
        server.reset();
        QCOMPARE(factoriesDeleted, 1);
    }

    void wholeLife()
    {
        const int port = freePort();
        QVERIFY(TestInstallation::write(TestInstallation::path() + "/settings/channelIp.conf"_s,
                                        streamed(2, true, 1, port, 64)));

        Recorder recorder;
        const std::unique_ptr<CChannelPlugin, void (*)(CChannelPlugin *)> plugin(
            entry<CChannelPlugin *(*)()>("instance")(), entry<void (*)(CChannelPlugin *)>("deleteInstance"));
        std::unique_ptr<CChannelServer> server(plugin->create());
        server->monitorHandle = 7;
        server->protocolFactory = new Factory;
        server->monitor = &recorder;
        server->journal = &recorder;
        QSignalSpy byText(server.get(), SIGNAL(connected(QString, int)));
        connect(server.get(), SIGNAL(disconnected(QString, int, bool)), SIGNAL(hasEnded(QString, int, bool)));
        connect(server.get(), SIGNAL(notConnected(QString)), SIGNAL(isRefused(QString)));
        QSignalSpy ended(this, &TestForeignHost::hasEnded);
        QSignalSpy refused(this, &TestForeignHost::isRefused);
        QSignalSpy finished(server.get(), SIGNAL(finished()));
        std::atomic<int> byPointer{0};
        connect(server.get(), &CChannelServer::connected, this, [&] { ++byPointer; });

        server->start();
        QVERIFY(server->hasFreeChannel() && server->isHardwareOn() && server->canCheckOnline());
        QTcpSocket client;
        client.connectToHost(QHostAddress::LocalHost, quint16(port));
        QVERIFY(byText.wait(30000));
        QCOMPARE(byText.first(), (QVariantList{"Caller"_s, 1}));
        QCOMPARE(Protocol::sawLabel, "IP-канал 1///1"_s);
        QVERIFY(!server->hasFreeChannel());
        client.write("ping");
        QVERIFY(soon([&] { return client.bytesAvailable() == 4; }));
        server->keepAliveConnection(1);
        server->keepAliveConnection(99); // logs in this thread
        QMetaObject::invokeMethod(server.get(), "disconnectFromAbonent", Q_ARG(QString, QString()),
                                  Q_ARG(int, 1));
        QVERIFY(ended.wait(30000));
        QCOMPARE(ended.first(), (QVariantList{"Caller"_s, 1, true}));
        QVERIFY(soon([] { return Protocol::sawKeepAlive.load(); }));

        server->connectToAbonent("Nobody"_s, streamed(2, "127.0.0.1"_s, freePort()));
        QVERIFY(refused.wait(30000));
        server->settingsWasChanged();
        server->stop();
        QVERIFY(finished.count() == 1 || finished.wait(30000));
        QCOMPARE(byPointer, 1);

        for (const char *call : {"state 7", "add 1 IP-канал 1", "sent 41", "received 41", "state 41",
                                 "remove 41", "record 0 IP-канал: Запуск", "record 0 IP-канал: Остановка"})
            QVERIFY2(recorder.calls.contains(QString::fromUtf8(call)), call);
        // Logging state is shared, everything else is each module's own.
        const auto mine =
            std::find_if(logging.tabulations.cbegin(), logging.tabulations.cend(),
                         [](const Tabulation &t) { return t.thread == QThread::currentThread(); });
        QVERIFY(mine != logging.tabulations.cend() &&
                mine->tabLevel == int(mine - logging.tabulations.cbegin()) + 1);
        QVERIFY(logging.mutex.tryLock()); // not left locked
        logging.mutex.unlock();
        QCOMPARE(hostsDebugCalls, 0);
        QCOMPARE(gIpSettings.blockSizeKb, -3);
        const auto *plugins = static_cast<const ChannelIpSettings *>(dlsym(library, "gIpSettings"));
        QVERIFY(plugins && plugins != &gIpSettings && plugins->blockSizeKb == 64);
    }
};

QTEST_GUILESS_MAIN(TestForeignHost)
#include "tst_foreignhost.moc"
