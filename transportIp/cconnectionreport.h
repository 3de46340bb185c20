// What one connection tells its host: monitor, journal and the server's signals.
#pragma once

#include "interfaces/cchannelmonitor.h"

#include <QString>

class CChannelServer;
class CHostAccess;

/// Passes a connection's reports on while it has access to the host.
/// All operations are [any thread]; those of the host are called without a lock of ours.
class CConnectionReport : public CChannelMonitor
{
public:
    /// @param reportedServer not owned, as is @a access; equipped before the first report
    CConnectionReport(CChannelServer *reportedServer, CHostAccess &access)
        : server(reportedServer), hostAccess(access)
    {}

    /// @return the entry's handle; 0 without access
    int addConnection(int kind, const QString &label, const QString &text) override;
    void removeConnection(int handle) override;
    void setState(int handle, const QString &text) override;
    void addReceived(int handle, int bytes) override;
    void addSent(int handle, int bytes) override;

    void addRecord(int kind, const QString &source, const QString &text);

    void connected(const QString &abonentName, int connectionId);
    void notConnected(const QString &abonentName);
    void disconnected(const QString &abonentName, int connectionId, bool wasUseful);

private:
    CChannelServer *server;
    CHostAccess &hostAccess;
};
