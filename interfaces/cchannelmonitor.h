// The host's view of what is connected right now, and how many bytes went by.
#pragma once

class QString;

/// Shows the connections of all channels. Implemented and owned by the host.
///
/// Every operation is [any thread]; the implementation guards itself.
class CChannelMonitor
{
public:
    virtual ~CChannelMonitor() = default;

    /// Adds an entry for one connection.
    ///
    /// @param kind number of the channel kind, CChannelPlugin::type()
    /// @param label the channel and the connection, such as "IP-канал 3"
    /// @param text the first state to show
    /// @return the entry's handle for the other operations
    virtual int addConnection(int kind, const QString &label, const QString &text) = 0;

    virtual void removeConnection(int handle) = 0;

    /// Replaces the state text of an entry. The entry may already be gone: a state that was on its
    /// way when the connection ended is to be passed over.
    virtual void setState(int handle, const QString &text) = 0;

    virtual void addReceived(int handle, int bytes) = 0;

    /// Counts bytes handed over for sending, whether or not they reach the other side.
    virtual void addSent(int handle, int bytes) = 0;
};
