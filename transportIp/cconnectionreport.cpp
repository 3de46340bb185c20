#include "transportIp/cconnectionreport.h"

#include "interfaces/cchannelserver.h"
#include "transportIp/chostaccess.h"

int CConnectionReport::addConnection(int kind, const QString &label, const QString &text)
{
    const CHostAccess::Use host(hostAccess);
    return host ? server->monitor->addConnection(kind, label, text) : 0;
}

void CConnectionReport::removeConnection(int handle)
{
    if (const CHostAccess::Use host(hostAccess); host)
        server->monitor->removeConnection(handle);
}

void CConnectionReport::setState(int handle, const QString &text)
{
    if (const CHostAccess::Use host(hostAccess); host)
        server->monitor->setState(handle, text);
}

void CConnectionReport::addReceived(int handle, int bytes)
{
    if (const CHostAccess::Use host(hostAccess); host)
        server->monitor->addReceived(handle, bytes);
}

void CConnectionReport::addSent(int handle, int bytes)
{
    if (const CHostAccess::Use host(hostAccess); host)
        server->monitor->addSent(handle, bytes);
}

void CConnectionReport::addRecord(int kind, const QString &source, const QString &text)
{
    if (const CHostAccess::Use host(hostAccess); host)
        server->journal->addRecord(kind, source, text);
}

void CConnectionReport::connected(const QString &abonentName, int connectionId)
{
    if (const CHostAccess::Use host(hostAccess); host)
        Q_EMIT server->connected(abonentName, connectionId);
}

void CConnectionReport::notConnected(const QString &abonentName)
{
    if (const CHostAccess::Use host(hostAccess); host)
        Q_EMIT server->notConnected(abonentName);
}

void CConnectionReport::disconnected(const QString &abonentName, int connectionId, bool wasUseful)
{
    if (const CHostAccess::Use host(hostAccess); host)
        Q_EMIT server->disconnected(abonentName, connectionId, wasUseful);
}
