#include "host/screen/residentprocess.h"

#include "common/descriptor.h"
#include "host/conversation/transporttasks.h"

#include <QFile>

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

bool isResidentThere(int level)
{
    // Asked for a shared lock: other screens may ask at the same time, and a directory that is not there is
    // not made.
    const QByteArray path = QFile::encodeName(TransportTasks::directory(level).absolutePath());
    const CDescriptor place(::open(path.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return place.isOpen() && ::flock(place.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
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
