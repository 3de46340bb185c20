#include "host/screen/residentprocess.h"

#include "host/conversation/transporttasks.h"

#include <QFile>

#include <sys/stat.h>
#include <sys/sysmacros.h>

bool isResidentThere(int level)
{
    CTransportLock lock(CTransportLock::Resident);
    return !lock.tryLock(level);
}

// A line of /proc/locks:   1: FLOCK  ADVISORY  WRITE 1234 08:01:5678 0 EOF
pid_t residentProcess(int level)
{
    const QByteArray path = QFile::encodeName(TransportTasks::directory(level).absolutePath());
    struct stat place = {};
    QFile locks(QStringLiteral("/proc/locks"));
    if (::stat(path.constData(), &place) != 0 || !locks.open(QIODevice::ReadOnly))
        return 0;
    const QString wanted = QString::asprintf("%02x:%02x:%llu", major(place.st_dev), minor(place.st_dev),
                                             static_cast<unsigned long long>(place.st_ino));
    const QList<QByteArray> lines = locks.readAll().split('\n');
    for (const QByteArray &line : lines) {
        const QList<QByteArray> words = line.simplified().split(' ');
        if (words.value(1) == "FLOCK" && words.value(5) == wanted.toLatin1())
            return words[4].toInt();
    }
    return 0;
}
