// Counts what goes through the channels, on its way to the monitor that shows it.
#pragma once

#include "interfaces/cchannelmonitor.h"

#include <QObject>
#include <QString>

#include <atomic>
#include <map>
#include <mutex>
#include <vector>

class CChannelServer;

/// A monitor before another one. [any thread]
class CTraffic : public QObject, public CChannelMonitor
{
    Q_OBJECT

public:
    /// @param shownOn what all is passed on to; outlives this object
    explicit CTraffic(CChannelMonitor &shownOn) : next(shownOn) {}

    /// Counts the calls of a server that has been started. Its entry in the monitor is no connection.
    /// [server thread]
    void follow(const CChannelServer &server);

    int addConnection(int kind, const QString &label, const QString &text) override;
    void removeConnection(int handle) override;
    void setState(int handle, const QString &text) override;
    void addReceived(int handle, int bytes) override;
    void addSent(int handle, int bytes) override;

    struct Counts
    {
        qint64 openNow = 0;       // connections and calls under way
        qint64 connections = 0;   // placed and answered, since the start, as are the following
        qint64 conversations = 0; // in which both sides know each other
        qint64 failedCalls = 0;
        qint64 received = 0; // bytes
        qint64 sent = 0;
        QString state; // of the servers
    };
    Counts counts() const;

private Q_SLOTS:
    void connected() { ++conversations; }
    void notConnected() { ++failedCalls; }

private:
    CChannelMonitor &next;
    std::atomic<qint64> connections{0};
    std::atomic<qint64> conversations{0};
    std::atomic<qint64> failedCalls{0};
    std::atomic<qint64> received{0};
    std::atomic<qint64> sent{0};
    mutable std::mutex mutex;      // guards the following
    std::map<int, QString> states; // of all entries, by handle
    std::vector<int> servers;      // handles
};
