// One connected byte stream, whatever carries it: a TCP socket, a serial line, a test's memory.
//
// A channel is made by the connection's worker and owned by the protocol that runs over it.
// The order of the virtual functions and of the members is part of the binary contract.
#pragma once

#include <QByteArray>

/// A connected byte stream to one remote abonent.
///
/// All operations are [connection thread]: the thread that made the channel.
class CChannel
{
public:
    /// Releases the transport; bytes that it still holds may be lost.
    virtual ~CChannel() = default;

    /// Ends the connection after a short, bounded attempt to hand over what is still queued.
    virtual void disconnectFromAbonent() = 0;

    /// @return whether the transport is connected now; false for good once the connection has ended
    virtual bool isConnected() = 0;

    /// Sends all of @a data, blocking for at most the configured write limit.
    ///
    /// There is no result: a channel that cannot take the bytes in time ends the connection, and
    /// isConnected() turns false.
    virtual void write(const QByteArray &data) = 0;

    /// Takes up to @a maxSize bytes that have arrived.
    ///
    /// @return the bytes, empty when there are none; never blocks
    virtual QByteArray read(int maxSize) = 0;

    /// @return how many bytes to hand to write() next; 0 or less means: not now
    virtual int idealBlockSize() = 0;

    int kind = 0; // number of the channel kind, CChannelPlugin::type()
};
