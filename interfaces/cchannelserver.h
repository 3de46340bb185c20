// One channel of a kind: listens, places calls, runs the connections and reports about them.
// Including this header gives the three host objects as well.
//
// Threads are named by three tags throughout:
//   [server thread]      the thread the server object lives in; it runs a Qt event loop
//   [connection thread]  the worker of one connection: socket, channel and protocol live there
//   [any thread]         safe at any time; a call that locks says what
#pragma once

#include "interfaces/cchannelmonitor.h"
#include "interfaces/cjournal.h"
#include "interfaces/cprotocolfactory.h"

#include <QByteArray>
#include <QObject>
#include <QString>

/// A channel server. Made by CChannelPlugin::create(), owned by the host.
///
/// Life: create, set the four members, start(), use, stop(), wait for finished(), delete.
/// Slots, members and signals have a fixed order: hosts and plug-ins are built apart.
class CChannelServer : public QObject
{
    Q_OBJECT

public:
    explicit CChannelServer(QObject *parent = nullptr);

    /// Deletes the protocol factory. The server has to be stopped.
    ~CChannelServer() override;

    CChannelServer(const CChannelServer &) = delete;
    CChannelServer &operator=(const CChannelServer &) = delete;

    /// @return whether one more connection is welcome. Advisory: ask before placing a call.
    /// [server thread], as are the calls below
    virtual bool hasFreeChannel() const = 0;

    /// @return whether the equipment behind the channel is present
    virtual bool isHardwareOn() const = 0;

    /// @return whether the host may call abonents only to see whether they are on line
    virtual bool canCheckOnline() const = 0;

    /// Begins to listen and to accept calls. The base does nothing.
    virtual void start();

    /// Asks for an end; finished() follows from the event loop. The base does nothing.
    virtual void stop();

public Q_SLOTS:
    /// The settings files have changed: read them again. The base does nothing.
    virtual void settingsWasChanged();

    /// Calls an abonent; the outcome arrives as a signal.
    ///
    /// @param abonentsData the abonent's settings record of this channel kind
    virtual void connectToAbonent(const QString &abonentName, const QByteArray &abonentsData) = 0;

    /// Ends one connection.
    ///
    /// @param connectionId the connection, or -1 to select it by @a abonentName
    virtual void disconnectFromAbonent(const QString &abonentName, int connectionId) = 0;

    /// Sets the keep-alive flag of a connection's protocol.
    virtual void keepAliveConnection(int connectionId) = 0;

Q_SIGNALS:
    /// The protocol of a connection has learned who is at the other end. [server thread]
    void connected(const QString &abonentName, int connectionId);

    /// A call could not be set up, or somebody else answered it. [connection thread]
    void notConnected(QString abonentName); // clazy:exclude=function-args-by-ref (by value: contract)

    /// A connection has ended. [connection thread]
    ///
    /// @param wasUseful what the protocol said of the connection
    void disconnected(const QString &abonentName, int connectionId, bool wasUseful);

    /// A stop is complete; the server may be deleted or started again. [server thread]
    void finished();

public:                    // in this order; set by the host between create() and start()
    int hostValue = 1;     // the host's own; channels leave it alone
    int monitorHandle = 0; // the channel's own entry in the monitor
    CProtocolFactory *protocolFactory = nullptr; // owned
    CChannelMonitor *monitor = nullptr;          // the host's
    CJournal *journal = nullptr;                 // the host's
};
