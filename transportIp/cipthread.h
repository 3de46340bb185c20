// One connection from set-up to farewell, in a thread of its own.
//
//   idle --answer()--> adopting ----> conversing --finished()--> farewell --> idle
//     `--call()--> connecting --connected---^
//                       `--refused, cancelled, over the limit-------------> idle
//
// The object lives in the server's thread and serves many connections in turn. It knows its server
// only by the contract.
#pragma once

#include "transportIp/cconnectionnames.h"
#include "transportIp/cconnectionreport.h"
#include "transportIp/chostaccess.h"
#include "transportIp/cprotocolcontrol.h"
#include "transportIp/ctransportdescriptor.h"
#include "transportIp/ipsettings.h"

#include <QAbstractSocket>
#include <QThread>

class CAbstractProtocol;
class CChannel;
class CChannelServer;
class CIpChannel;
class CIpSocket;

class CIpThread : public QThread
{
    Q_OBJECT

public:
    /// @param reportedServer not owned; equipped before the first start
    /// @param id names the connections of this worker for as long as it lives
    CIpThread(CChannelServer *reportedServer, int id);

    /// The thread has to have ended.
    ~CIpThread() override;

    /// Serves an accepted connection.
    ///
    /// @param descriptor taken over, also on failure
    /// @return whether the thread runs; errno tells why not
    /// [server thread], while the worker is free
    bool answer(qintptr descriptor);

    /// Calls an abonent. @return as answer()
    bool call(const QString &name, const AbonentIpSettings &settings);

    /// @return whether it can take the next connection [server thread]
    bool isFree();

    /// Asks the connection to end: its protocol is told, or will be when its start() is over.
    ///
    /// [any thread] Calls the protocol's stop() where it can, and as long as that takes.
    void stop();

    /// Stops the protocol now if a stop() came during its start(), and that is over. [server thread]
    void passStopOn();

    /// Sets the protocol's keep-alive flag if there is a protocol, or when its start() is over.
    /// [any thread]
    void keepAlive();

    /// @return the remote abonent's name as this side knows it [any thread]
    QString currentAbonentName() const { return names.current(); }

    int id() const { return connectionId; }

    /// Frees what a terminated connection left: closes the transport and removes the monitor entry.
    /// [server thread], after the thread has ended.
    void cleanUpAfterTermination();

    /// Cuts off a worker that cannot be ended: its connection is shut down and it reports nothing
    /// any more. The object then has to live as long as the process. [server thread]
    void leaveBehind();

protected:
    void run() override;

private Q_SLOTS:
    void socketError(QAbstractSocket::SocketError error);
    void remoteAbonentNameChanged(const QString &name);

private:
    enum Mode
    {
        AnswerCall = 0,
        PlaceCall = 1,
    };

    bool launch();
    void adoptDescriptor();
    bool placeCall();
    bool waitForConnection();
    void reportCancelledCall(const QString &callingText);
    void reportFailedCall();
    bool startProtocol();
    CAbstractProtocol *createProtocol(CChannel *channelForIt);
    void connectProtocol();
    void reportRefusedProtocol();
    void converse();
    void reportFarewell();
    void deleteProtocol();

    void journalEvent(const QString &text);

    // Set by the server's thread before each start, then the connection thread's own.
    int mode = AnswerCall;
    AbonentIpSettings abonentSettings;
    qintptr socketDescriptor = 0;

    // Never change.
    CChannelServer *const server;
    const int connectionId;
    const QString label; // the source of this worker's monitor and journal entries

    // The connection thread's own, and the server's after that thread has ended.
    CIpSocket *socket = nullptr;           // the channel owns it as soon as there is one
    CAbstractProtocol *protocol = nullptr; // null while no protocol runs
    CIpChannel *channel = nullptr;         // the protocol owns it
    int monitorHandle = 0;
    QString calledName; // the protocol may announce another name meanwhile

    // Either thread's; each guards itself.
    CHostAccess hostAccess;
    CConnectionReport report;
    CConnectionNames names;
    CProtocolControl control;
    CTransportDescriptor transport;
};
