// A channel kind that never leaves the process: every call is answered by the server that places it.
//
// The smallest complete channel, and a test double for hosts: all signals come as from the real ones,
// without a network. Whatever is called answers, except for abonents whose record is the word "refuse".
#include "common/global.h"
#include "common/logger.h"
#include "interfaces/cabstractprotocol.h"
#include "interfaces/cchannelserver.h"
#include "interfaces/pluginentry.h"

#include <QAbstractEventDispatcher>
#include <QDeadlineTimer>
#include <QMutex>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <memory>

namespace {

constexpr int loopbackKind = 100;
constexpr int blockSize = 64 * 1024;
constexpr int stopMs = 9000;
constexpr int lockWaitMs = 50; // a protocol's start() may hold the lock for long

/// What lies between the two ends of a call. Touched by both connection threads, under the mutex.
struct Line
{
    QMutex mutex;
    bool isConnected = true;
    QByteArray arrived[2];                   // at each end
    QAbstractEventDispatcher *loops[2] = {}; // of each end, while its channel lives

    void wake(int end) // protocols look at their channel whenever their loop wakes
    {
        if (loops[end])
            loops[end]->wakeUp();
    }
};

class CLoopbackChannel : public CChannel
{
public:
    CLoopbackChannel(std::shared_ptr<Line> ownLine, int ownEnd, CChannelMonitor *counter, int handle)
        : line(std::move(ownLine)), end(ownEnd), monitor(counter), monitorHandle(handle)
    {
        kind = loopbackKind;
        const QMutexLocker locker(&line->mutex);
        line->loops[end] = QAbstractEventDispatcher::instance();
    }
    ~CLoopbackChannel() override
    {
        disconnectFromAbonent();
        const QMutexLocker locker(&line->mutex);
        line->loops[end] = nullptr;
    }
    void disconnectFromAbonent() override
    {
        const QMutexLocker locker(&line->mutex);
        line->isConnected = false;
        line->wake(0);
        line->wake(1);
    }
    bool isConnected() override
    {
        const QMutexLocker locker(&line->mutex);
        return line->isConnected;
    }
    void write(const QByteArray &data) override
    {
        monitor->addSent(monitorHandle, data.size());
        const QMutexLocker locker(&line->mutex);
        line->arrived[1 - end] += data;
        line->wake(1 - end);
    }
    QByteArray read(int maxSize) override
    {
        QMutexLocker locker(&line->mutex);
        const QByteArray bytes = line->arrived[end].left(maxSize);
        line->arrived[end].remove(0, bytes.size());
        if (bytes.isEmpty())
            return bytes;
        line->wake(1 - end); // there is room again
        locker.unlock();
        monitor->addReceived(monitorHandle, bytes.size());
        return bytes;
    }
    int idealBlockSize() override
    {
        const QMutexLocker locker(&line->mutex);
        return blockSize - line->arrived[1 - end].size();
    }

private:
    const std::shared_ptr<Line> line;
    const int end;
    CChannelMonitor *const monitor;
    const int monitorHandle;
};

/// One end of a call from set-up to farewell: the object lives in the server thread, run() in its own.
struct CLoopbackConnection : QThread
{
    CChannelServer *server = nullptr;
    int id = 0;
    QString calledName;         // null for the end that answers
    QString abonentName;        // the server thread's own
    std::shared_ptr<Line> line; // null: nobody answers
    std::atomic<bool> stopRequested{false};
    QMutex mutex; // guards the protocol between this thread and those that stop it
    CAbstractProtocol *protocol = nullptr;

    template <typename Action>
    void withProtocol(const Action &action)
    {
        if (!mutex.tryLock(lockWaitMs))
            return;
        if (protocol)
            action(protocol);
        mutex.unlock();
    }
    void stop()
    {
        stopRequested = true; // run() passes it on if the protocol is not there yet
        withProtocol([this](CAbstractProtocol *each) { passStopOn(each); });
    }
    void passStopOn(CAbstractProtocol *to) // under the mutex; a protocol hears of each request once
    {
        if (stopRequested.exchange(false))
            to->stop();
    }
    void run() override
    {
        const QString label = QStringLiteral("Петля %1").arg(id);
        const QString text = calledName.isNull() ? QStringLiteral("Входящее соединение")
                                                 : QStringLiteral("Вызываем абонента '%1'").arg(calledName);
        const int handle = server->monitor->addConnection(loopbackKind, label, text);
        server->journal->addRecord(JournalEvent, label, text);
        if (line && startProtocol(label, handle)) {
            exec(); // until the protocol says finished()
            sayFarewell();
            const QMutexLocker locker(&mutex);
            delete protocol; // and with it the channel
            protocol = nullptr;
        } else if (!calledName.isNull()) {
            Q_EMIT server->notConnected(calledName);
        }
        server->monitor->removeConnection(handle);
    }
    bool startProtocol(const QString &label, int handle)
    {
        const QMutexLocker locker(&mutex);
        auto channel = std::make_unique<CLoopbackChannel>(line, calledName.isNull(), server->monitor, handle);
        protocol = server->protocolFactory->createProtocol(channel.get());
        if (!protocol)
            return false;
        channel.release(); // the protocol's
        connect(protocol, &CAbstractProtocol::finished, this, &QThread::quit, Qt::DirectConnection);
        connect(protocol, &CAbstractProtocol::remoteAbonentNameChanged, this, [this](const QString &name) {
            abonentName = name; // queued: in the server thread
            Q_EMIT server->connected(name, id);
        });
        protocol->remoteAbonentName = calledName;
        protocol->remoteAbonentFilteredName = Global::filterName(calledName);
        protocol->label = label;
        protocol->start();
        passStopOn(protocol);
        return true;
    }
    void sayFarewell()
    {
        const QString name = protocol->remoteAbonentName.isEmpty() ? calledName : protocol->remoteAbonentName;
        if (!calledName.isNull() && Global::filterName(name) != Global::filterName(calledName))
            Q_EMIT server->notConnected(calledName); // somebody else has answered
        if (!name.isEmpty())
            Q_EMIT server->disconnected(name, id, protocol->wasUseful);
    }
};

/// All but the signals is [server thread].
class CLoopbackServer : public CChannelServer
{
public:
    bool hasFreeChannel() const override { return true; }
    bool isHardwareOn() const override { return true; }
    bool canCheckOnline() const override { return true; }

    void start() override
    {
        journal->addRecord(JournalEvent, QStringLiteral("Петля"), QStringLiteral("Запуск"));
        monitor->setState(monitorHandle, QStringLiteral("Работает"));
    }
    void stop() override
    {
        QMetaObject::invokeMethod(
            this, [this] { internalStop(); }, Qt::QueuedConnection);
    }

    void connectToAbonent(const QString &name, const QByteArray &abonentsData) override
    {
        debug(QStringLiteral("CLoopbackServer"), QStringLiteral("Вызываем абонента '%1'").arg(name),
              DebugTransportConnects, DebugFlagNone);
        const auto line = abonentsData == "refuse" ? nullptr : std::make_shared<Line>();
        open(line, name.isNull() ? QStringLiteral("") : name);
        if (line)
            open(line, QString());
    }
    void disconnectFromAbonent(const QString &name, int connectionId) override
    {
        for (CLoopbackConnection *each : qAsConst(connections)) {
            const bool isNamed = Global::filterName(each->abonentName) == Global::filterName(name);
            if (each->id == connectionId || (connectionId == -1 && isNamed))
                return each->stop();
        }
    }
    void keepAliveConnection(int connectionId) override
    {
        if (CLoopbackConnection *one = connections.value(connectionId - 1))
            one->withProtocol([](CAbstractProtocol *each) {
                __atomic_store_n(&each->keepAliveRequested, true, __ATOMIC_SEQ_CST);
            });
    }

private:
    void open(const std::shared_ptr<Line> &line, const QString &calledName)
    {
        const auto isFree = [](const CLoopbackConnection *each) { return each->isFinished(); };
        auto place = std::find_if(connections.begin(), connections.end(), isFree);
        if (place == connections.end())
            place = connections.insert(place, new CLoopbackConnection);
        CLoopbackConnection *connection = *place;
        connection->server = this;
        connection->id = int(place - connections.begin()) + 1;
        connection->calledName = connection->abonentName = calledName;
        connection->line = line;
        connection->stopRequested = false;
        connection->start();
    }
    void internalStop()
    {
        journal->addRecord(JournalEvent, QStringLiteral("Петля"), QStringLiteral("Остановка"));
        for (CLoopbackConnection *each : qAsConst(connections))
            each->stop();
        const QDeadlineTimer limit(stopMs);
        for (CLoopbackConnection *each : qAsConst(connections)) {
            if (!each->wait(limit)) {
                each->quit(); // a protocol that does not listen; one that blocks its thread for ever is
                              // beyond help
                each->wait();
            }
            deleteThreadTabLevel(each);
            delete each;
        }
        connections.clear();
        monitor->setState(monitorHandle, QStringLiteral("Выключен"));
        Q_EMIT finished();
    }

    QList<CLoopbackConnection *> connections; // since the last stop, running or free; owned
};

class CLoopbackPlugin : public CChannelPlugin
{
public:
    int type() const override { return loopbackKind; }
    QString name() const override { return QStringLiteral("Петля"); }
    CChannelServer *create() const override { return new CLoopbackServer; }
    void incCallTimeout(int *timeout) const override { *timeout = qBound(10, *timeout, 110) + 10; }
    void decCallTimeout(int *timeout) const override { *timeout = qBound(20, *timeout, 120) - 10; }
};

} // namespace

extern "C" {

RUNTIME_EXPORT int apiVersion()
{
    return channelApiVersion;
}
RUNTIME_EXPORT void initDebug(DebugData *data)
{
    LoggerData::initDebug(data);
}
RUNTIME_EXPORT CChannelPlugin *instance()
{
    return new CLoopbackPlugin;
}
RUNTIME_EXPORT void deleteInstance(CChannelPlugin *plugin)
{
    delete plugin;
}
}
