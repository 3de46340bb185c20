// A channel in memory with one fault, named by the environment variable FAULT; without it a good one.
// Every call makes two connections, the caller's and the called one's, with a pipe between them.
#include "common/debugdata.h"
#include "common/namefilter.h"
#include "interfaces/cabstractprotocol.h"
#include "interfaces/cchannelserver.h"
#include "interfaces/pluginentry.h"

#include <QThread>
#include <QTimer>

#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>

#include <sys/eventfd.h>

namespace {

constexpr int kind = 77;
constexpr int manyBytes = 1000; // more than greetings need: faults behind it hit only some checks
DebugData *gData = nullptr;

bool fault(const char *name)
{
    static const QByteArray *const chosen = new QByteArray(qgetenv("FAULT"));
    return *chosen == name;
}

struct Pipe
{
    QMutex mutex;
    QByteArray queues[2];
    std::atomic<bool> isOpen{true};
    std::atomic<int> moved{0};
};

class MemoryChannel : public CChannel
{
public:
    MemoryChannel(std::shared_ptr<Pipe> both, int ownSide, CChannelMonitor *host, int entry)
        : pipe(std::move(both)), side(ownSide), monitor(host), handle(entry)
    {
        kind = fault("presets") ? 0 : ::kind;
    }
    ~MemoryChannel() override { pipe->isOpen = false; }
    void disconnectFromAbonent() override { pipe->isOpen = false; }
    bool isConnected() override { return pipe->isOpen; }
    int idealBlockSize() override { return 64 * 1024; }

    void write(const QByteArray &data) override
    {
        monitor->addSent(handle, data.size() + fault("monitor-bytes"));
        constexpr int room = 1024 * 1024;
        QMutexLocker locker(&pipe->mutex);
        for (int turn = 0; pipe->queues[1 - side].size() > room && pipe->isOpen; ++turn) {
            locker.unlock();
            QThread::msleep(fault("bounded-write") ? 2000 : 10);
            locker.relock();
            if (turn > 40)
                pipe->isOpen = false;
        }
        pipe->queues[1 - side] += data;
        pipe->moved += data.size();
        if (fault("data-intact") && pipe->moved > 100000 && !data.isEmpty())
            *pipe->queues[1 - side].rbegin() = char(~data.back());
    }

    QByteArray read(int maxSize) override
    {
        QMutexLocker locker(&pipe->mutex);
        const QByteArray data = pipe->queues[side].left(maxSize + (fault("read-limits") && maxSize == 7));
        pipe->queues[side].remove(0, data.size());
        locker.unlock();
        if (!data.isEmpty())
            monitor->addReceived(handle, data.size());
        return data;
    }

private:
    const std::shared_ptr<Pipe> pipe;
    const int side;
    CChannelMonitor *const monitor;
    const int handle;
};

class Worker : public QThread
{
public:
    Worker(CChannelServer *host, int number, std::shared_ptr<Pipe> both, QString called)
        : id(number), abonentName(called), server(host), pipe(std::move(both)), calledName(called)
    {}

    void run() override
    {
        if (fault("stop-while-calling"))
            msleep(20);
        const QString label = QStringLiteral("Память %1").arg(id);
        const int handle = server->monitor->addConnection(kind, label, QStringLiteral("Соединение"));
        server->journal->addRecord(fault("journal-records"), label, QStringLiteral("Соединение"));
        if (startProtocol(label, handle)) {
            exec();
            const QString name = protocol->remoteAbonentName;
            if (!name.isEmpty() && !(fault("every-end-reported") && isBusy()))
                Q_EMIT server->disconnected(name, id, protocol->wasUseful || fault("useful-flag"));
        }
        QMutexLocker locker(fault("free-log-mutex") && isBusy() ? &gData->mutex : nullptr);
        if (!fault("monitor-entries") || !isBusy())
            server->monitor->removeConnection(handle);
        locker.unlock();
        if (!fault("protocol-thread") || !isBusy())
            deleteProtocol();
        leave();
    }

    void deleteProtocol()
    {
        const QMutexLocker locker(&mutex);
        delete protocol;
        protocol = nullptr;
    }

    void stop(bool mayBeLost = false)
    {
        isStopRequested = !mayBeLost;
        withProtocol([](CAbstractProtocol *each) { each->stop(); });
    }

    void withProtocol(const std::function<void(CAbstractProtocol *)> &action)
    {
        const QMutexLocker locker(&mutex);
        if (protocol)
            action(protocol);
    }

    bool isBusy() const { return pipe->moved > manyBytes; }

    const int id;
    QString abonentName; // the server thread's

private:
    bool startProtocol(const QString &label, int handle)
    {
        auto channel = std::make_unique<MemoryChannel>(pipe, calledName.isNull(), server->monitor, handle);
        const QMutexLocker locker(&mutex);
        protocol = server->protocolFactory->createProtocol(channel.get());
        if (!protocol) {
            if (fault("refused-protocol"))
                QMetaObject::invokeMethod(server, [this] { Q_EMIT server->connected(calledName, id); });
            return false;
        }
        channel.release(); // NOLINT: the protocol's
        const auto quitWhenFinished = [this] {
            if (!isMuffled && (!fault("finish-in-stop") || currentThread() == this))
                quit();
        };
        connect(protocol, &CAbstractProtocol::finished, this, quitWhenFinished, Qt::DirectConnection);
        connect(
            protocol, &CAbstractProtocol::remoteAbonentNameChanged, this,
            [this](const QString &name) {
                abonentName = name;
                Q_EMIT server->connected(name, fault("call-connects") ? 0 : id);
            },
            fault("signal-threads") ? Qt::DirectConnection : Qt::AutoConnection);
        protocol->remoteAbonentName = calledName;
        protocol->remoteAbonentFilteredName = Global::filterName(calledName);
        protocol->label = label;
        isMuffled = fault("finish-in-start");
        protocol->start();
        isMuffled = false;
        if (isStopRequested)
            protocol->stop();
        return true;
    }

    /// What should not be left behind.
    void leave()
    {
        if (calledName.isNull())
            return;
        if (fault("no-thread-left"))
            std::thread([] { QThread::sleep(60); }).detach();
        if (fault("no-descriptor-left"))
            ::eventfd(0, 0);
        if (fault("no-memory-left"))
            new char[64 * 1024];
        const QMutexLocker locker(&gData->mutex);
        if (fault("no-slot-left"))
            gData->tabulations.append({this, gData->tabulations.size() + 1});
    }

    CChannelServer *const server;
    const std::shared_ptr<Pipe> pipe;
    const QString calledName; // null: the called side
    std::atomic<bool> isStopRequested{false}, isMuffled{false};
    QMutex mutex; // guards the protocol
    CAbstractProtocol *protocol = nullptr;
};

class Server : public CChannelServer
{
public:
    Server() { hostValue = fault("fresh-server") ? 2 : 1; }

    const QMetaObject *metaObject() const override
    {
        return fault("meta-object") ? &QObject::staticMetaObject : CChannelServer::metaObject();
    }

    bool hasFreeChannel() const override
    {
        if (fault("queries"))
            QThread::sleep(60);
        return true;
    }
    bool isHardwareOn() const override { return true; }
    bool canCheckOnline() const override { return true; }

    void stop() override
    {
        if (fault("stop-returns-first"))
            return internalStop();
        QTimer::singleShot(0, this, &Server::internalStop);
    }

    void settingsWasChanged() override
    {
        ++changes;
        if (fault("queued-calls") && changes == 100)
            stopWorkers();
        if (fault("settings-change")) // not when many of them come at once
            QTimer::singleShot(0, this, [this] { changes == 1 ? stopWorkers() : void(); });
        if (fault("random-run") && workers.size() > 4)
            monitor->removeConnection(424242);
    }

    void connectToAbonent(const QString &name, const QByteArray &data) override
    {
        if (fault("garbage-data") && data.isEmpty())
            std::abort();
        if (data == "silent") {
            for (int i = 0; i <= fault("silent-abonent"); ++i)
                Q_EMIT notConnected(name);
            return;
        }
        const auto pipe = std::make_shared<Pipe>();
        for (const QString &called : {name, QString()}) {
            ++lastId;
            const int id = fault("many-calls") ? qMin(lastId, 4) : lastId;
            workers << new Worker(this, id, pipe, called);
            workers.last()->start();
        }
    }

    void disconnectFromAbonent(const QString &name, int connectionId) override
    {
        for (Worker *worker : qAsConst(workers)) {
            const bool isNamed = fault("disconnect-by-name")
                                     ? worker->abonentName == name
                                     : Global::filterName(worker->abonentName) == Global::filterName(name);
            if (connectionId == -1 ? isNamed : worker->id == connectionId && !fault("disconnect-by-id"))
                return worker->stop();
        }
        if (fault("unknown-connection") && connectionId == -1)
            stopWorkers();
    }

    void keepAliveConnection(int connectionId) override
    {
        for (Worker *worker : qAsConst(workers)) {
            if (worker->id == connectionId || fault("keep-alive"))
                worker->withProtocol([](CAbstractProtocol *each) {
                    __atomic_store_n(&each->keepAliveRequested, true, __ATOMIC_SEQ_CST);
                });
        }
    }

private:
    void stopWorkers()
    {
        for (Worker *worker : qAsConst(workers))
            worker->stop(fault("stop-while-calling") && workers.size() == 2);
    }

    void internalStop()
    {
        bool wasBusy = false;
        stopWorkers();
        for (Worker *worker : qAsConst(workers)) {
            worker->wait();
            wasBusy = wasBusy || worker->isBusy();
            worker->deleteProtocol();
            delete worker;
        }
        workers.clear();
        if (!fault("restart"))
            lastId = 0;
        if (fault("ownership") && wasBusy) {
            delete protocolFactory;
            protocolFactory = nullptr;
        }
        if (fault("quiet-after-finish"))
            QTimer::singleShot(10, this, [this] { monitor->setState(monitorHandle, QString()); });
        for (int i = fault("start-stop"); i < 1 + 2 * fault("finished-twice"); ++i)
            Q_EMIT finished();
    }

    QList<Worker *> workers;
    int lastId = 0;
    int changes = 0;
};

class Plugin : public CChannelPlugin
{
public:
    int type() const override { return kind; }
    QString name() const override
    {
        static std::atomic<int> inside{0};
        const bool isAlone = ++inside == 1;
        QThread::msleep(fault("plugin-threads"));
        --inside;
        return isAlone || !fault("plugin-threads") ? QStringLiteral("Память") : QStringLiteral("Каша");
    }
    CChannelServer *create() const override { return new Server; }
    void incCallTimeout(int *timeout) const override
    {
        *timeout = qMin(*timeout + 10, 120 + fault("call-delay") * 1000000);
    }
    void decCallTimeout(int *timeout) const override { *timeout = qMax(*timeout - 10, 10); }
};

} // namespace

extern "C" {

Q_DECL_EXPORT int apiVersion()
{
    return fault("version-15") ? 15 : fault("version-17") ? 17 : channelApiVersion;
}

Q_DECL_EXPORT void initDebug(DebugData *data)
{
#ifdef WITHOUT_INSTANCE
    std::abort(); // nobody may come here
#endif
    if (apiVersion() != channelApiVersion)
        std::abort();
    gData = data;
}

#ifndef WITHOUT_INSTANCE
Q_DECL_EXPORT CChannelPlugin *instance()
{
    static Plugin *const shared = new Plugin;
    return fault("plugin-object") ? shared : new Plugin;
}
#endif

Q_DECL_EXPORT void deleteInstance(CChannelPlugin *plugin)
{
    if (!fault("plugin-object"))
        delete plugin;
}

} // extern "C"
