// What one connection tells its host: monitor, journal and the server's signals.
//
// A worker that cannot be ended is left behind when its server stops, and the host then deletes the
// server, the monitor and the journal. From then on the worker must not reach them any more, so all
// of its reports go through here, where they can be cut off.
#pragma once

#include "interfaces/cchannelmonitor.h"

#include <QString>

#include <atomic>

class CAbstractProtocol;
class CChannel;
class CChannelServer;

/// Passes a connection's reports on until cut(). Its thread cannot be terminated inside a report.
/// All operations are [any thread]; those of the host are called without a lock of ours.
class CConnectionReport : public CChannelMonitor
{
public:
    /// @param reportedServer not owned; equipped before the first report
    explicit CConnectionReport(CChannelServer *reportedServer) : server(reportedServer) {}

    /// @return the entry's handle; 0 once cut off
    int addConnection(int kind, const QString &label, const QString &text) override;
    void removeConnection(int handle) override;
    void setState(int handle, const QString &text) override;
    void addReceived(int handle, int bytes) override;
    void addSent(int handle, int bytes) override;

    void addRecord(int kind, const QString &source, const QString &text);

    /// @return null also when cut off
    CAbstractProtocol *createProtocol(CChannel *channel);

    void connected(const QString &abonentName, int connectionId);
    void notConnected(const QString &abonentName);
    void disconnected(const QString &abonentName, int connectionId, bool wasUseful);

    /// Ends all reporting and waits until none is under way.
    ///
    /// @param timeoutMs bounds the wait; a report may hang in the host for ever
    /// @return whether none is under way any more
    bool cut(int timeoutMs);

private:
    class Passage;

    CChannelServer *server;
    std::atomic<int> passages{0}; // reports under way; negative once cut
};
