#include "host/conversation/descriptors.h"

#include <QFile>

#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int directoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int copyBytes = 256 * 1024;

} // namespace

qint64 readUpTo(const CDescriptor &file, char *bytes, qint64 size)
{
    qint64 done = 0;
    while (done < size) {
        const ssize_t count = ::read(file.get(), bytes + done, std::size_t(size - done));
        if (count == 0)
            break;
        if (count < 0 && errno != EINTR)
            return -1;
        done += qMax<ssize_t>(count, 0);
    }
    return done;
}

qint64 copyRest(const CDescriptor &from, const CDescriptor &to)
{
    QByteArray bytes(copyBytes, Qt::Uninitialized);
    qint64 copied = 0;
    for (;;) {
        const qint64 count = readUpTo(from, bytes.data(), bytes.size());
        if (count <= 0)
            return count < 0 ? -1 : copied;
        if (!Io::writeAll(to.get(), {bytes.constData(), std::size_t(count)}))
            return -1;
        copied += count;
    }
}

CDescriptor openDirectory(const QString &path)
{
    return CDescriptor(::open(QFile::encodeName(path).constData(), directoryFlags));
}

CDescriptor openDirectory(const CDescriptor &parent, const QByteArray &name)
{
    return CDescriptor(::openat(parent.get(), name.constData(), directoryFlags));
}

std::optional<std::vector<QByteArray>> namesIn(const CDescriptor &directory)
{
    const int opened = ::openat(directory.get(), ".", directoryFlags);
    const std::unique_ptr<DIR, int (*)(DIR *)> list(opened < 0 ? nullptr : ::fdopendir(opened), ::closedir);
    if (!list)
        return std::nullopt;
    std::vector<QByteArray> names;
    while (const dirent *entry = ::readdir(list.get())) {
        const QByteArray name(entry->d_name);
        if (name != "." && name != "..")
            names.push_back(name);
    }
    return names;
}

bool removeTree(int parent, const QByteArray &name)
{
    if (::unlinkat(parent, name.constData(), 0) == 0 || errno == ENOENT)
        return true;
    if (errno != EISDIR && errno != EPERM)
        return false;
    const CDescriptor directory(::openat(parent, name.constData(), directoryFlags));
    const auto names = namesIn(directory);
    if (!names)
        return false;
    for (const QByteArray &child : *names)
        removeTree(directory.get(), child);
    return ::unlinkat(parent, name.constData(), AT_REMOVEDIR) == 0;
}
