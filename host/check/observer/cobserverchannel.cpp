#include "host/check/observer/cobserverchannel.h"

#include "host/check/observer/report.h"

void CObserverLine::attach(int end, QAbstractEventDispatcher *loop)
{
    const QMutexLocker locker(&mutex);
    loops[end] = loop;
}

void CObserverLine::disconnect()
{
    const QMutexLocker locker(&mutex);
    isOpen = false;
    wake(0);
    wake(1);
}

bool CObserverLine::isConnected() const
{
    const QMutexLocker locker(&mutex);
    return isOpen;
}

void CObserverLine::put(int fromEnd, const QByteArray &bytes)
{
    const QMutexLocker locker(&mutex);
    arrived[1 - fromEnd] += bytes;
    wake(1 - fromEnd);
}

QByteArray CObserverLine::take(int end, int mostBytes)
{
    const QMutexLocker locker(&mutex);
    const QByteArray bytes = arrived[end].left(mostBytes);
    arrived[end].remove(0, bytes.size());
    if (!bytes.isEmpty())
        wake(1 - end);
    return bytes;
}

int CObserverLine::room(int end) const
{
    const QMutexLocker locker(&mutex);
    return blockBytes - arrived[1 - end].size();
}

void CObserverLine::wake(int end)
{
    if (loops[end])
        loops[end]->wakeUp();
}

CObserverChannel::CObserverChannel(std::shared_ptr<CObserverLine> both, int ownEnd, CChannelMonitor *counter,
                                   int handle)
    : line(std::move(both)), end(ownEnd), monitor(counter), monitorHandle(handle)
{
    kind = observerKind;
    line->attach(end, QAbstractEventDispatcher::instance());
}

CObserverChannel::~CObserverChannel()
{
    checkThread("деструктор");
    line->disconnect();
    line->attach(end, nullptr);
    if (isGone)
        *isGone = true;
}

void CObserverChannel::disconnectFromAbonent()
{
    checkThread("disconnectFromAbonent()");
    line->disconnect();
}

bool CObserverChannel::isConnected()
{
    checkThread("isConnected()");
    return line->isConnected();
}

void CObserverChannel::write(const QByteArray &data)
{
    checkThread("write()");
    const int room = line->room(end);
    Report::judge(
        "block-size", data.isEmpty() || !line->isConnected() || data.size() <= room,
        QStringLiteral("write() получил %1 байт, а idealBlockSize() был %2").arg(data.size()).arg(room));
    monitor->addSent(monitorHandle, data.size());
    line->put(end, data);
}

QByteArray CObserverChannel::read(int maxSize)
{
    checkThread("read()");
    const QByteArray bytes = line->take(end, maxSize);
    if (!bytes.isEmpty())
        monitor->addReceived(monitorHandle, bytes.size());
    return bytes;
}

int CObserverChannel::idealBlockSize()
{
    checkThread("idealBlockSize()");
    return line->room(end);
}

void CObserverChannel::checkThread(const char *operation) const
{
    Report::judge(
        "channel-thread", QThread::currentThread() == thread,
        QStringLiteral("%1 канала вызван не в потоке соединения").arg(QString::fromUtf8(operation)));
}
