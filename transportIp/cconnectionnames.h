// What the abonents of a worker's connections are called.
//
// A name that a protocol announces reaches the server's thread queued; by then the worker may serve
// another connection. So each announcement keeps the number and the monitor handle of its own.
#pragma once

#include <QMutex>
#include <QQueue>
#include <QString>

/// Guards itself. [any thread]
class CConnectionNames
{
public:
    /// The next connection of the worker begins.
    void beginNext();

    /// @return the abonent's name as this side knows it
    QString current() const;
    void setCurrent(const QString &newName);

    /// The protocol has announced a name, which is about to be queued.
    void announce(int monitorHandle);

    /// A queued name has arrived; it counts unless another connection has begun.
    ///
    /// @return the monitor handle of the connection that it belongs to
    int takeAnnounced(const QString &announcedName);

private:
    struct Announcement
    {
        int connectionNumber;
        int monitorHandle;
    };

    mutable QMutex mutex; // guards the rest; held for moments
    QString name;
    QQueue<Announcement> announcements; // in the order of the queued slots
    int connectionNumber = 0;           // counts the worker's connections
};
