#include "transportIp/cconnectionreport.h"

#include "common/terminationguard.h"
#include "interfaces/cchannelserver.h"

#include <QElapsedTimer>
#include <QThread>

#include <limits>

namespace {
constexpr int cutMark = std::numeric_limits<int>::min() / 2; // far below any number of reports
constexpr int cutPollMs = 1;
} // namespace

/// One report under way; open unless the connection was cut off before.
class CConnectionReport::Passage
{
public:
    explicit Passage(CConnectionReport *report) : counter(report->passages), open(counter.fetch_add(1) >= 0)
    {}
    ~Passage() { counter.fetch_sub(1); }

    Passage(const Passage &) = delete;
    Passage &operator=(const Passage &) = delete;

    explicit operator bool() const { return open; }

private:
    CTerminationGuard guard;
    std::atomic<int> &counter;
    bool open;
};

int CConnectionReport::addConnection(int kind, const QString &label, const QString &text)
{
    const Passage passage(this);
    return passage ? server->monitor->addConnection(kind, label, text) : 0;
}

void CConnectionReport::removeConnection(int handle)
{
    if (const Passage passage(this); passage)
        server->monitor->removeConnection(handle);
}

void CConnectionReport::setState(int handle, const QString &text)
{
    if (const Passage passage(this); passage)
        server->monitor->setState(handle, text);
}

void CConnectionReport::addReceived(int handle, int bytes)
{
    if (const Passage passage(this); passage)
        server->monitor->addReceived(handle, bytes);
}

void CConnectionReport::addSent(int handle, int bytes)
{
    if (const Passage passage(this); passage)
        server->monitor->addSent(handle, bytes);
}

void CConnectionReport::addRecord(int kind, const QString &source, const QString &text)
{
    if (const Passage passage(this); passage)
        server->journal->addRecord(kind, source, text);
}

CAbstractProtocol *CConnectionReport::createProtocol(CChannel *channel)
{
    const Passage passage(this);
    return passage ? server->protocolFactory->createProtocol(channel) : nullptr;
}

void CConnectionReport::connected(const QString &abonentName, int connectionId)
{
    if (const Passage passage(this); passage)
        Q_EMIT server->connected(abonentName, connectionId);
}

void CConnectionReport::notConnected(const QString &abonentName)
{
    if (const Passage passage(this); passage)
        Q_EMIT server->notConnected(abonentName);
}

void CConnectionReport::disconnected(const QString &abonentName, int connectionId, bool wasUseful)
{
    if (const Passage passage(this); passage)
        Q_EMIT server->disconnected(abonentName, connectionId, wasUseful);
}

bool CConnectionReport::cut(int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    if (passages.load() >= 0)
        passages.fetch_add(cutMark); // only the server's thread cuts
    while (passages.load() != cutMark) {
        if (clock.hasExpired(timeoutMs))
            return false;
        QThread::msleep(cutPollMs);
    }
    return true;
}
