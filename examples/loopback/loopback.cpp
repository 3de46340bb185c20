// A channel kind that never leaves the process: every call is answered by the server that places it.
//
// The smallest complete channel, and a test double for hosts: all signals come as from the real ones,
// without a network. Whatever is called answers, except for abonents whose record is the word "refuse".
#include "../threadedkind.h"
#include "common/exports.h"
#include "interfaces/pluginentry.h"

#include <QAbstractEventDispatcher>

#include <deque>

namespace {

constexpr int loopbackKind = 100;
constexpr int blockSize = 64 * 1024;

/// What lies between the two ends of a call. Touched by both connection threads, under the mutex.
struct Line
{
    QMutex mutex;
    bool isConnected = true;
    std::deque<QByteArray> arrived[2];       // at each end, as it was written: the lock is held for no copy
    int taken[2] = {};                       // bytes of the first piece that have been read
    int waiting[2] = {};                     // bytes that have not
    QAbstractEventDispatcher *loops[2] = {}; // of each end, while its channel lives

    void put(int end, const QByteArray &piece)
    {
        if (!piece.isEmpty())
            arrived[end].push_back(piece);
        waiting[end] += piece.size();
    }

    QByteArray take(int end, int maxSize)
    {
        if (arrived[end].empty())
            return {};
        const QByteArray bytes = arrived[end].front().mid(taken[end], maxSize);
        taken[end] += bytes.size();
        waiting[end] -= bytes.size();
        if (taken[end] == arrived[end].front().size()) {
            arrived[end].pop_front();
            taken[end] = 0;
        }
        return bytes;
    }

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
        line->put(1 - end, data);
        line->wake(1 - end);
    }
    QByteArray read(int maxSize) override
    {
        QMutexLocker locker(&line->mutex);
        const QByteArray bytes = line->take(end, maxSize);
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
        return blockSize - line->waiting[1 - end];
    }

private:
    const std::shared_ptr<Line> line;
    const int end;
    CChannelMonitor *const monitor;
    const int monitorHandle;
};

class CLoopbackServer : public CThreadedServer
{
public:
    CLoopbackServer() : CThreadedServer(loopbackKind, QStringLiteral("Петля")) {}

    void connectToAbonent(const QString &name, const QByteArray &abonentsData) override
    {
        const auto line = abonentsData == "refuse" ? nullptr : std::make_shared<Line>();
        const auto end = [this, line](int number) {
            return [this, line, number](int handle) -> std::unique_ptr<CChannel> {
                if (!line)
                    return nullptr;
                return std::make_unique<CLoopbackChannel>(line, number, monitor, handle);
            };
        };
        call(name, end(0));
        if (line)
            answer(end(1));
    }
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
