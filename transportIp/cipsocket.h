// A TCP socket that takes no more than it may hold, and moves its bytes without a copy.
//
// A plain buffered QTcpSocket swallows any amount at once and reads ahead without end: a peer that
// stops reading would never be noticed, and either side could fill our memory. It also copies every
// byte through its own buffers. Here Qt makes and closes the connection, and the bytes pass it by:
// what the system takes at once is handed over at once, and what has arrived is read straight into
// the reader's memory. Bytes are kept only
//   outgoing  when the system does not take them, up to two blocks;
//   arrived   while a write waits, since the other side may be waiting for us to read, up to 64 MiB;
//             and when the connection ends, so that they can still be read.
#pragma once

#include "transportIp/cbytequeue.h"
#include "transportIp/cconnectiondispatcher.h"

#include <QPointer>
#include <QTcpSocket>

/// One connection's socket, bounded in both directions. [connection thread], which has a
/// CConnectionDispatcher
class CIpSocket : public QTcpSocket, private CDirectSocket
{
    Q_OBJECT

public:
    CIpSocket();
    ~CIpSocket() override;

    /// Sends at once what is written. For a connected socket that was not accepted: one that was has
    /// it from the listener.
    void tune();

    /// @return whether it is connected and nobody has ended the connection yet
    bool isConnected() const;

    /// @return up to @a maxSize bytes of what has arrived, 1 MiB at most; also after the end of the
    /// connection
    QByteArray takeArrived(int maxSize);

    /// What waits in the queue, and what was written since the event loop turned last: a writer that
    /// goes by this number gets round the loop between two blocks, however fast the system takes them.
    qint64 bytesToWrite() const override;

    /// Waits until the queue can move and moves it. What arrives meanwhile is read ahead.
    ///
    /// In difference to the base it leaves error() alone and emits nothing when the time is over,
    /// since Global::writeData() asks every millisecond; errorString() tells of the time-out.
    bool waitForBytesWritten(int msecs = 30000) override;

    /// Ends the connection in order: waits up to @a msecs for the queue to move and for the other side
    /// to follow. What the queue still holds then is sent from the event loop.
    void leave(int msecs);

    /// As leave(), for a socket that is deleted next: what the queue still holds then is lost.
    void farewell(int msecs);

    /// Closes the connection at once, and drops the queue.
    void cut();

protected:
    /// Takes as much as fits under the bound; 0 while the queue is full, -1 when not connected.
    qint64 writeData(const char *data, qint64 size) override;

private:
    Q_DISABLE_COPY(CIpSocket)

    void turnBegins() override { sentThisTurn = 0; }
    pollfd wanted() const override;
    void happened(short events) override;

    bool isOpenForBytes() const;
    qint64 sendNow(const char *data, qint64 size);
    bool sendQueue();
    int receiveNow(char *data, int maxSize);
    qint64 readAhead(bool isLast);
    bool isAllRead() const;
    void giveBack();

    const QPointer<CConnectionDispatcher> dispatcher; // of the thread it was made in
    CByteQueue outgoing;
    CByteQueue arrived;
    qint64 sentThisTurn = 0;
    bool mayHoldMore = true; // the system: asking is worth a call; a caller's first bytes are mostly there
    bool isTold = false;     // of arrived bytes; the reader hears of more when it has looked at these
    bool hasHoard = false;   // much has been read ahead and not given back yet
    bool isReadOut = false;  // the system, up to the end of the connection
    bool isLeaving = false;  // we end the connection, as soon as the queue is empty
    bool hasEnded = false;   // the other side did, or it broke; Qt finds it when the queue is empty
};
