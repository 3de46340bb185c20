// The descriptor of a connection's socket, for who has to cut the connection off from outside.
#pragma once

#include <QMutex>

#include <sys/socket.h>

/// Guards itself; who forgets the descriptor before closing it can be sure that no other is shut down.
/// [any thread]
class CTransportDescriptor
{
public:
    void remember(int openDescriptor)
    {
        const QMutexLocker locker(&mutex);
        descriptor = openDescriptor;
    }

    void forget() { remember(-1); }

    /// Ends the traffic both ways; the descriptor stays open.
    void shutDown()
    {
        const QMutexLocker locker(&mutex);
        if (descriptor >= 0)
            ::shutdown(descriptor, SHUT_RDWR);
    }

private:
    QMutex mutex; // guards the next; held for moments
    int descriptor = -1;
};
