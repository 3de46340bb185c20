#include "host/conversation/descriptors.h"

#include "host/text/reasons.h"

#include <QFile>

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

void closeDescriptor(int *descriptor)
{
    const int reason = errno;
    if (*descriptor >= 0)
        ::close(*descriptor);
    *descriptor = -1;
    errno = reason;
}

bool writeAll(int descriptor, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR)
            return false;
        bytes.remove_prefix(std::size_t(qMax<ssize_t>(count, 0)));
    }
    return true;
}

qint64 readAll(int descriptor, char *bytes, qint64 size)
{
    qint64 done = 0;
    while (done < size) {
        const ssize_t count = ::read(descriptor, bytes + done, std::size_t(size - done));
        if (count == 0)
            break;
        if (count < 0 && errno != EINTR)
            return -1;
        done += qMax<ssize_t>(count, 0);
    }
    return done;
}

int openDirectory(const QString &path)
{
    return ::open(QFile::encodeName(path).constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

bool syncDirectory(const QString &path)
{
    int directory = openDirectory(path);
    const bool isSynced = directory >= 0 && ::fsync(directory) == 0;
    closeDescriptor(&directory);
    return isSynced;
}

bool removeTree(int parent, const QByteArray &name)
{
    if (::unlinkat(parent, name.constData(), 0) == 0 || errno == ENOENT)
        return true;
    if (errno != EISDIR && errno != EPERM)
        return false;
    const int directory = ::openat(parent, name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    DIR *list = directory >= 0 ? ::fdopendir(directory) : nullptr; // its descriptor from now on
    if (!list)
        return false;
    while (const dirent *entry = ::readdir(list)) {
        const QByteArray child(entry->d_name);
        if (child != "." && child != "..")
            removeTree(directory, child);
    }
    ::closedir(list);
    return ::unlinkat(parent, name.constData(), AT_REMOVEDIR) == 0;
}

QString systemReason()
{
    return reasonOf(errno);
}
