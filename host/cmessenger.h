// The host's side of the channels: loads them, equips their servers, starts and stops them.
//
// The order that the contract asks for, in one place:
//   load: apiVersion, initDebug, instance    open: create, the four members, start
//   close: stop, finished of each, delete    destructor: deleteInstance
#pragma once

#include "host/cchannellibrary.h"
#include "host/conversation/clatewatcher.h"
#include "host/conversation/cmessageprotocol.h"
#include "host/settings/channelsettingsfile.h"
#include "interfaces/cchannelserver.h"

#include <QObject>
#include <QTimer>

#include <memory>
#include <vector>

class CConsole;

/// Lives in the server thread.
class CMessenger : public QObject
{
    Q_OBJECT

public:
    /// @param shownOn, @param onMonitor outlive the messenger, as does what @a around points to
    CMessenger(CConsole &shownOn, CChannelMonitor &onMonitor, const CMessageProtocol::Context &around);

    /// Has to have been closed, if it was opened.
    ~CMessenger() override;

    /// Loads the libraries of channelPlugins/. One that is of no use is reported and left out.
    /// @return whether any was loaded
    bool load();

    /// Leaves only the channels of one kind. After load(). @return whether there is one
    bool keepOnly(int kind);

    /// Makes a server for each channel and starts it.
    /// @param isCallingOnly it is not started, so that it calls and nobody can call it
    void open(bool isCallingOnly = false);

    /// Stops them; closed() follows. May be called again.
    void close();

    /// The channel of a kind; the server is valid between open() and closed(). @return null when there is
    /// none
    CChannelServer *server(int kind) const;
    CChannelPlugin *plugin(int kind) const;

Q_SIGNALS:
    /// All servers have stopped and are gone.
    void closed();

private Q_SLOTS:
    void serverFinished();
    void readSettings();

private:
    struct Channel
    {
        std::unique_ptr<CChannelLibrary> library;
        std::unique_ptr<CChannelServer> server;
    };

    const Channel *find(int kind) const;

    CConsole &console;
    CChannelMonitor &monitor;
    const CMessageProtocol::Context context;
    std::vector<Channel> channels;
    int runningServers = 0;
    bool isClosing = false;
    CLateWatcher watcher;                // of the settings directory and channelIp.conf in it
    QTimer debounce;                     // since the last change of either
    ChannelSettingsFile channelSettings; // when last seen
};
