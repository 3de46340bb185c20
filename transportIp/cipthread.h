// One connection from set-up to farewell, in a thread of its own.
//
//   idle --answer()--> adopting ----> conversing --finished()--> farewell --> idle
//     `--call()--> connecting --connected---^
//                       `--refused, cancelled, over the limit-------------> idle
//
// The object lives in the server's thread and serves many connections in turn. It knows its server
// only by the contract.
#pragma once

#include "transportIp/cconnectionreport.h"
#include "transportIp/ipsettings.h"

#include <QAbstractSocket>
#include <QMutex>
#include <QQueue>
#include <QThread>

#include <atomic>

class CAbstractProtocol;
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

    /// Asks the connection to end: its protocol is told, or will be as soon as it exists.
    ///
    /// [any thread] Locks the worker's mutex and calls the protocol's stop() under it.
    void stop();

    /// Sets the protocol's keep-alive flag, if there is a protocol. [any thread], locks as stop()
    void keepAlive();

    /// @return the remote abonent's name as this side knows it [any thread]
    QString currentAbonentName() const;

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

    /// A name on its way from the protocol to the server's thread, with the connection it belongs to.
    struct Announcement
    {
        int connectionNumber;
        int monitorHandle;
    };

    bool launch();
    void adoptDescriptor();
    bool placeCall();
    bool waitForConnection();
    void reportCancelledCall(const QString &callingText);
    void reportFailedCall();
    bool startProtocol();
    void reportRefusedProtocol();
    void converse();
    void reportFarewell();
    void deleteProtocol();

    void journalEvent(const QString &text);
    void rememberTransport();
    void forgetTransport();

    // Set by the server's thread before each start, then the connection thread's own.
    int mode = AnswerCall;
    AbonentIpSettings abonentSettings;

    QString abonentName; // either thread, guarded by nameMutex

    // Set by the server's thread.
    qintptr socketDescriptor = 0;
    int connectionId;

    CConnectionReport report; // the way to the server

    // The connection thread's own.
    CIpSocket *socket = nullptr;            // the channel owns it as soon as there is one
    CAbstractProtocol *protocol = nullptr;  // null while no protocol runs; guarded by mutex
    std::atomic<bool> stopRequested{false}; // any thread; cleared before each start
    int monitorHandle = 0;
    mutable QMutex mutex; // guards the protocol between this thread and those that stop it

    QString calledName;  // the connection thread's own: the protocol may announce another name meanwhile
    const QString label; // the source of this worker's monitor and journal entries

    CIpChannel *channel = nullptr; // the protocol owns it; guarded by mutex, as is the next
    bool stopPassedOn = false;     // the protocol has been told of the stop

    mutable QMutex nameMutex;           // guards abonentName and the next two; held for moments only
    QQueue<Announcement> announcements; // in the order of the queued slots
    int connectionNumber = 0;           // counts this worker's connections

    QMutex transportMutex; // guards the next; held for moments only
    int transportFd = -1;  // the socket's descriptor while there is one
};
