// A TCP socket that takes no more than it may hold, and moves its bytes without a copy.
//
// A plain buffered QTcpSocket swallows any amount at once and reads ahead without end: a peer that
// stops reading would never be noticed, and either side could fill our memory. It also copies every
// byte through its own buffers; here what the system takes at once is handed over at once, and what
// has arrived is read straight into the reader's memory.
#pragma once

#include "transportIp/cconnectiondispatcher.h"

#include <QPointer>
#include <QTcpSocket>

/// One connection's socket, bounded in both directions. [connection thread]
class CIpSocket : public QTcpSocket, private CDirectSocket
{
    Q_OBJECT

public:
    /// In a thread without a CConnectionDispatcher Qt does the reading.
    CIpSocket();
    ~CIpSocket() override;

    /// Sends at once what is written. For a connected socket that was not accepted: one that was has
    /// it from the listener.
    void tune();

    /// @return up to @a maxSize bytes of what has arrived; the system is asked only where it may have some
    QByteArray takeArrived(int maxSize);

    /// What waits in the queue, and what was written since the event loop turned last: a writer that
    /// goes by this number gets round the loop between two blocks, however fast the system takes them.
    qint64 bytesToWrite() const override;

    /// Waits until the queue can move and moves it.
    ///
    /// In difference to the base it leaves error() alone and emits nothing when the time is over,
    /// since Global::writeData() asks every millisecond; errorString() tells of the time-out.
    bool waitForBytesWritten(int msecs = 30000) override;

protected:
    /// Takes as much as fits under the bound; 0 while the queue is full, -1 when not connected.
    qint64 writeData(const char *data, qint64 size) override;

    /// Reads what Qt has read ahead, then what the system holds.
    qint64 readData(char *data, qint64 maxSize) override;

private:
    Q_DISABLE_COPY(CIpSocket)

    void turnBegins() override { sentThisTurn = 0; }
    bool keepsFromQt(qintptr descriptor) override;

    qint64 queued() const { return QTcpSocket::bytesToWrite(); }
    qint64 sendNow(const char *data, qint64 size);
    qint64 receiveNow(char *data, qint64 maxSize);

    const QPointer<CConnectionDispatcher> dispatcher; // of the thread it was made in
    qint64 sentThisTurn = 0;
    bool mayHoldMore;         // the system, so that asking it is worth a call
    bool isUntouched = false; // what was last kept from Qt; if it stays so, Qt gets it after all
};
