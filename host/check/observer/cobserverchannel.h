// A channel in memory that watches how its protocol treats it. The far end is another such channel of
// the same host, or a script.
#pragma once

#include "interfaces/cchannel.h"
#include "interfaces/cchannelmonitor.h"

#include <QAbstractEventDispatcher>
#include <QMutex>
#include <QThread>

#include <memory>

constexpr int observerKind = 1; // hosts that write records look for the kind they know

/// What lies between two ends. [any thread], guarded by itself.
class CObserverLine
{
public:
    static constexpr int blockBytes = 64 * 1024;

    void attach(int end, QAbstractEventDispatcher *loop);
    void disconnect();
    bool isConnected() const;
    void put(int fromEnd, const QByteArray &bytes);
    QByteArray take(int end, int mostBytes);
    int room(int end) const;

private:
    void wake(int end);

    mutable QMutex mutex; // guards all below
    bool isOpen = true;
    QByteArray arrived[2];                   // at each end
    QAbstractEventDispatcher *loops[2] = {}; // of each end, while its channel lives
};

class CObserverChannel final : public CChannel
{
public:
    CObserverChannel(std::shared_ptr<CObserverLine> both, int ownEnd, CChannelMonitor *counter, int handle);
    ~CObserverChannel() override;

    void disconnectFromAbonent() override;
    bool isConnected() override;
    void write(const QByteArray &data) override;
    QByteArray read(int maxSize) override;
    int idealBlockSize() override;

    /// Set when the channel is destroyed.
    bool *isGone = nullptr;

private:
    void checkThread(const char *operation) const;

    const std::shared_ptr<CObserverLine> line;
    const int end;
    CChannelMonitor *const monitor;
    const int monitorHandle;
    QThread *const thread = QThread::currentThread();
};
