// A TCP socket that takes no more than it may hold.
//
// A plain buffered QTcpSocket swallows any amount at once and reads ahead without end: a peer that
// stops reading would never be noticed, and either side could fill our memory.
#pragma once

#include <QTcpSocket>

/// One connection's socket, bounded in both directions. [connection thread]
class CIpSocket : public QTcpSocket
{
    Q_OBJECT

public:
    CIpSocket();

    /// Sets what can only be set on a connected socket.
    void tune();

    /// Waits until the queue can move and moves it.
    ///
    /// In difference to the base it leaves error() alone and emits nothing when the time is over,
    /// since Global::writeData() asks every millisecond; errorString() tells of the time-out.
    bool waitForBytesWritten(int msecs = 30000) override;

protected:
    /// Takes as much as fits under the bound; 0 while the queue is full, -1 when not connected.
    qint64 writeData(const char *data, qint64 size) override;

private:
    Q_DISABLE_COPY(CIpSocket)
};
