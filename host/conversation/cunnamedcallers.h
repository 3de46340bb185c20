// Callers that have not said who they are: how many there may be.
//
// Anybody who reaches the port can open connections and stay silent. Their number is bounded, in all
// and for each origin; the oldest gives way, so a flood of silent ones keeps no honest caller out.
#pragma once

#include <QString>

#include <list>
#include <mutex>

/// A connection that may have to give way.
class CUnnamedCaller
{
public:
    /// Asks it to end. Must not wait and not call back. [any thread]
    virtual void giveWay() = 0;

protected:
    ~CUnnamedCaller() = default;
};

/// [any thread]
class CUnnamedCallers
{
public:
    CUnnamedCallers(int mostInAll, int mostPerOrigin) : inAll(mostInAll), perOrigin(mostPerOrigin) {}

    /// @param origin tells callers of different addresses apart
    void add(CUnnamedCaller *caller, const QString &origin);

    /// The caller has named itself or is gone; afterwards it is not called any more.
    void remove(CUnnamedCaller *caller);

private:
    struct Entry
    {
        CUnnamedCaller *caller;
        QString origin;
    };

    void dropOldest(const QString *origin);

    const int inAll;
    const int perOrigin;
    std::mutex mutex;      // guards the list, and its callers against going away
    std::list<Entry> list; // oldest first
};
