// The host's side of the contract, as cheap as it can be: the library, a monitor and a journal that
// only count, and a server that listens on a free port.
#pragma once

#include "host/cchannellibrary.h"
#include "interfaces/cchannelserver.h"

#include <QString>

#include <array>
#include <atomic>
#include <functional>
#include <memory>

class CAbstractProtocol;
class CChannel;

/// Counts bytes without making connections share a cache line.
class CCountingMonitor : public CChannelMonitor
{
public:
    static constexpr int channelHandle = 0; // of the server itself

    int addConnection(int kind, const QString &label, const QString &text) override;
    void removeConnection(int handle) override;
    void setState(int handle, const QString &text) override;
    void addReceived(int handle, int bytes) override;
    void addSent(int handle, int bytes) override;

    /// Whether the server's last state was that it works. [server thread]
    bool works() const { return channelWorks; }

private:
    struct alignas(64) Count
    {
        std::atomic<qint64> received{0};
        std::atomic<qint64> sent{0};
    };

    Count &countOf(int handle) { return counts[size_t(handle) % counts.size()]; }

    std::array<Count, 64> counts;
    std::atomic<int> lastHandle{channelHandle};
    bool channelWorks = false;
};

class CCountingJournal : public CJournal
{
public:
    void addRecord(int kind, const QString &source, const QString &text) override;

private:
    std::atomic<int> records{0};
};

using MakeProtocol = std::function<CAbstractProtocol *(CChannel *channel)>;

/// One channel server of the plug-in, with everything a host gives it. [main thread]
class CStation
{
public:
    /// Loads the plug-in and shares this program's logging state with it. A failure ends the program
    /// with a message.
    explicit CStation(const QString &pluginPath);
    ~CStation();
    CStation(const CStation &) = delete;
    CStation &operator=(const CStation &) = delete;

    /// Listens on a free port of the machine; others are tried when somebody was faster.
    ///
    /// @param blockSizeKb what a connection wants to have queued at the most, KiB
    /// @return the port, 0 when no port would do
    int start(int blockSizeKb, const MakeProtocol &makeProtocol);

    /// Ends the connections and waits for the server's word that it is done.
    void stop();

    CChannelServer &server() const { return *channelServer; }

private:
    bool listen(int port, int blockSizeKb, const MakeProtocol &makeProtocol);

    CCountingMonitor monitor;
    CCountingJournal journal;
    CChannelLibrary library;
    std::unique_ptr<CChannelServer> channelServer;
};
