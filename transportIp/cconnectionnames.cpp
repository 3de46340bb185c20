#include "transportIp/cconnectionnames.h"

void CConnectionNames::beginNext()
{
    const QMutexLocker locker(&mutex);
    ++connectionNumber;
}

QString CConnectionNames::current() const
{
    const QMutexLocker locker(&mutex);
    return name;
}

void CConnectionNames::setCurrent(const QString &newName)
{
    const QMutexLocker locker(&mutex);
    name = newName;
}

void CConnectionNames::announce(int monitorHandle)
{
    const QMutexLocker locker(&mutex);
    announcements.enqueue({connectionNumber, monitorHandle});
}

int CConnectionNames::takeAnnounced(const QString &announcedName)
{
    const QMutexLocker locker(&mutex);
    const Announcement announcement = announcements.dequeue();
    if (announcement.connectionNumber == connectionNumber)
        name = announcedName;
    return announcement.monitorHandle;
}
