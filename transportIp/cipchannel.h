// A CChannel over one TCP socket.
#pragma once

#include "interfaces/cchannel.h"

class CChannelMonitor;
class CIpSocket;
class QThread;

/// The byte channel of one connection: counts bytes, bounds the time of a write.
///
/// Owned by the protocol. [connection thread]
class CIpChannel : public CChannel
{
public:
    /// @param connectedSocket taken over
    /// @param byteCounter not owned, never null
    CIpChannel(CIpSocket *connectedSocket, int handle, CChannelMonitor *byteCounter);

    /// Deletes the socket.
    ~CIpChannel() override;

    CIpChannel(const CIpChannel &) = delete;
    CIpChannel &operator=(const CIpChannel &) = delete;

    void disconnectFromAbonent() override;
    bool isConnected() override;

    /// A write that is not taken within `Details/maxWritingTime` ends the connection.
    void write(const QByteArray &data) override;

    QByteArray read(int maxSize) override;

    /// @return `blockSizeKb` of the settings in force, less what the socket still has queued
    int idealBlockSize() override;

    /// Closes the connection and frees the socket; the channel stays, disconnected for good.
    /// For a connection whose thread has been ended: [server thread], after that.
    void dropSocket();

private:
    CIpSocket *socket; // owned; null once dropped
    int monitorHandle;
    CChannelMonitor *monitor;
    const QThread *const home; // where it was made
};
