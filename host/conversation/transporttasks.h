// Word for the process that delivers: a file in tasks/toTransport/ for each thing to do.
//
//   abonent 1          the first line; files that begin otherwise are somebody else's
//   deliver 00000005   there is a new entry in the outbox; also: retry it, with what was refused
//   withdraw 00000005  the user wants it back
//
// The file is made whole (a rename), and removed by the process that has done it. And the lock that says
// which process that is: one for each secrecy level.
#pragma once

#include "common/descriptor.h"

#include <QDir>
#include <QString>

#include <vector>

struct TransportTask
{
    enum Kind
    {
        Deliver,
        Withdraw,
    };

    Kind kind = Deliver;
    QString number; // of the entry
};

namespace TransportTasks {

QDir directory(int level);

/// @return null on success, else a text for people
QString add(int level, const TransportTask &task);

/// Takes out all that there are, in their order. By the process that delivers.
std::vector<TransportTask> take(int level);

} // namespace TransportTasks

/// Held by the one process of a secrecy level that sends and receives; or by the one that is to do so for
/// long.
class CTransportLock
{
public:
    enum Kind
    {
        Transport,
        Resident,
    };

    explicit CTransportLock(Kind ofKind = Transport) : kind(ofKind) {}

    /// @return whether this process has the lock now
    bool tryLock(int level);
    bool isLocked() const { return descriptor.isOpen(); }

private:
    const Kind kind;
    CDescriptor descriptor;
};
