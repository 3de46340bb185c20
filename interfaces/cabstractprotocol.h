// What runs over a channel: the host's protocol. Also the door to the channel itself.
#pragma once

#include "interfaces/cchannel.h"

#include <QObject>
#include <QString>

/// The host's protocol for one connection.
///
/// Made by CProtocolFactory in the connection's thread, where it lives until the worker deletes it.
/// It must emit finished() when its work is over: nothing else ends the connection's event loop.
class CAbstractProtocol : public QObject
{
    Q_OBJECT

public:
    /// @param channel the connection, owned from now on
    explicit CAbstractProtocol(CChannel *channel = nullptr, QObject *parent = nullptr);

    /// Deletes the channel.
    ~CAbstractProtocol() override;

    CAbstractProtocol(const CAbstractProtocol &) = delete;
    CAbstractProtocol &operator=(const CAbstractProtocol &) = delete;

    /// Begins the conversation. The members below are set by now. The base clears wasUseful.
    /// [connection thread]
    virtual void start();

    /// Asks for an end; finished() has to follow soon. The base does nothing.
    /// [any thread], mostly the server's: it must not touch the channel directly, nor wait.
    virtual void stop();

    // The channel side reads and writes these; their order is part of the binary contract.
    CChannel *channel;                 // owned
    QString remoteAbonentName;         // preset for a placed call; the protocol fills it otherwise
    QString remoteAbonentFilteredName; // preset for a placed call
    QString label;                     // names the connection in logs; set before start()
    bool keepAliveRequested = false;   // set by the server's thread: read and clear it atomically
    bool wasUseful = false;            // whether the connection did useful work; reported at its end

Q_SIGNALS:
    /// The conversation is over; emitted from any thread.
    void finished();

    /// The other side has named itself.
    void remoteAbonentNameChanged(const QString &remoteAbonentName);
};
