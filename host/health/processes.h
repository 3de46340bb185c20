// What the system tells about other processes (/proc), as far as the rights of this one go.
#pragma once

#include <QDateTime>
#include <QSet>
#include <QString>

#include <vector>

namespace Processes {

/// A TCP socket of this network namespace that listens.
struct Listener
{
    int port = 0;
    QString address; // "0.0.0.0", "::1"
    QString user;    // whose it is
    quint64 inode = 0;
};

/// Those of both protocols.
std::vector<Listener> listeners();

/// The sockets of a process; none where its descriptors are not shown.
QSet<quint64> socketsOf(int pid);

/// @return the process that holds a socket; 0 when none is seen: another user's descriptors are not shown
int holderOf(quint64 socketInode);

/// @return the process that holds an flock(2) on a file or directory; 0 when there is none
int lockHolder(const QString &path);

struct Process
{
    int pid = 0;
    QString user;
    QString program;   // path of the executable, or, where it is not shown, the name
    QDateTime started; // invalid: unknown
};

Process describe(int pid);

/// "abonent (процесс 123, пользователь root)"
QString nameOf(const Process &process);

/// Descriptors that a process has open and may have. @return -1 where that is not shown
int openDescriptors(int pid);
int descriptorLimit(int pid);

} // namespace Processes
