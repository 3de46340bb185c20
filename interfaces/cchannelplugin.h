// A channel kind as an object: what a loaded library hands to the host.
#pragma once

class CChannelServer;
class QString;

/// A channel kind. Made by the library's `instance`, destroyed by its `deleteInstance`.
///
/// The order of the virtual functions is part of the binary contract. [any thread]
class CChannelPlugin
{
public:
    virtual ~CChannelPlugin() = default;

    /// @return the number of the kind, the same in every installation
    virtual int type() const = 0;

    /// @return the name of the kind as people see it
    virtual QString name() const = 0;

    /// @return a new server that the caller owns; it does not refer back to the plug-in
    virtual CChannelServer *create() const = 0;

    /// Lengthens, within the kind's bound, the host's delay before it calls again.
    virtual void incCallTimeout(int *timeout) const = 0;

    /// Shortens the host's delay before it calls again.
    virtual void decCallTimeout(int *timeout) const = 0;
};
