// The host's maker of protocols: one per connection.
#pragma once

class CAbstractProtocol;
class CChannel;

/// Makes the protocol objects of a channel server. Implemented by the host, owned by the server.
class CProtocolFactory
{
public:
    virtual ~CProtocolFactory() = default;

    /// Makes the protocol for one new connection.
    ///
    /// @param channel the connection; the protocol takes it over
    /// @return a new protocol that lives in the calling thread, or null to refuse the connection
    ///         (the caller then keeps the channel)
    /// [connection thread], several at a time
    virtual CAbstractProtocol *createProtocol(CChannel *channel) = 0;
};
