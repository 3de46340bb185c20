#include "host/service/ctraffic.h"

#include "interfaces/cchannelserver.h"

#include <QStringList>

void CTraffic::follow(const CChannelServer &server)
{
    --connections;
    {
        const std::lock_guard lock(mutex);
        servers.push_back(server.monitorHandle);
    }
    // By the text of the signature: the contract class of the library is not ours.
    connect(&server, SIGNAL(connected(QString, int)), this, SLOT(connected()));
    connect(&server, SIGNAL(notConnected(QString)), this, SLOT(notConnected()));
}

int CTraffic::addConnection(int kind, const QString &label, const QString &text)
{
    ++connections;
    const int handle = next.addConnection(kind, label, text);
    const std::lock_guard lock(mutex);
    states[handle] = text;
    return handle;
}

void CTraffic::removeConnection(int handle)
{
    {
        const std::lock_guard lock(mutex);
        states.erase(handle);
    }
    next.removeConnection(handle);
}

void CTraffic::setState(int handle, const QString &text)
{
    {
        const std::lock_guard lock(mutex);
        const auto entry = states.find(handle);
        if (entry != states.end())
            entry->second = text;
    }
    next.setState(handle, text);
}

void CTraffic::addReceived(int handle, int bytes)
{
    received += bytes;
    next.addReceived(handle, bytes);
}

void CTraffic::addSent(int handle, int bytes)
{
    sent += bytes;
    next.addSent(handle, bytes);
}

CTraffic::Counts CTraffic::counts() const
{
    Counts result;
    result.connections = connections;
    result.conversations = conversations;
    result.failedCalls = failedCalls;
    result.received = received;
    result.sent = sent;
    QStringList texts;
    const std::lock_guard lock(mutex);
    result.openNow = qint64(states.size());
    for (const int handle : servers) {
        const auto entry = states.find(handle);
        if (entry == states.end())
            continue;
        texts << entry->second;
        --result.openNow;
    }
    result.state = texts.join(QStringLiteral("; "));
    return result;
}
