#include "common/environment.h"

#include <QDir>
#include <QStorageInfo>

#include <atomic>

namespace {

std::atomic<bool> gEmergecyExit{false};

} // namespace

namespace Global {

QString currentSystemUserName()
{
    return QString::fromLocal8Bit(qgetenv("USER"));
}

QStorageInfo storageOf(QDir directory)
{
    QStorageInfo storage(directory.absolutePath());
    while (!storage.isValid() && directory.cdUp())
        storage.setPath(directory.absolutePath());
    return storage;
}

long long freeBytes(const QStorageInfo &storage)
{
    const long long available = storage.bytesAvailable();
    return available == 0 ? storage.bytesFree() : available;
}

long long diskFreeSpace(const QString &path)
{
    return freeBytes(storageOf(QDir(path)));
}

QString edition()
{
    return QStringLiteral("linux edition");
}

bool isEmergecyExit()
{
    return gEmergecyExit;
}

void setEmergecyExit(bool value)
{
    gEmergecyExit = value;
}

} // namespace Global
