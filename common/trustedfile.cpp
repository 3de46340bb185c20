#include "common/trustedfile.h"

#include <QDir>
#include <QFile>
#include <QList>

#include <array>
#include <csignal>
#include <ctime>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace TrustedFile {

namespace {

constexpr int openAttempts = 3;
constexpr int linkLimit = 8;
constexpr int alwaysAdded = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

// @return 0, or why an open file of ours cannot be trusted
int objection(const Descriptor &file)
{
    struct stat status = {};
    if (::fstat(file.get(), &status) != 0)
        return errno;
    if (!S_ISREG(status.st_mode))
        return EINVAL;
    if (status.st_nlink > 1)
        return EMLINK;
    return status.st_nlink == 0 ? ENOENT : 0; // deleted between open and here
}

Descriptor openAt(const Descriptor &directory, const QByteArray &name, int flags)
{
    return Descriptor(
        retried([&] { return ::openat(directory.get(), name.constData(), flags | alwaysAdded); }));
}

// A way through directories and links, one name at a time, of which every step is held open.
class Walk
{
public:
    explicit Walk(int flags) : finalFlags(flags) {}

    Descriptor open(const QByteArray &path)
    {
        if (!start(path))
            return Descriptor();
        while (!pending.isEmpty()) {
            const QByteArray name = pending.takeFirst();
            Descriptor next = step(name);
            if (followed)
                continue;
            if (!next.isOpen() || pending.isEmpty())
                return next;
            directory = std::move(next);
        }
        return openAt(directory, QByteArrayLiteral("."), finalFlags);
    }

    QByteArray resolvedPath() const { return resolved.isEmpty() ? QByteArrayLiteral("/") : resolved; }

private:
    // Queues the names of @a path before those still to come; an absolute one begins anew.
    bool start(const QByteArray &path)
    {
        QList<QByteArray> names = path.split('/');
        names.removeAll(QByteArray());
        names.removeAll(QByteArrayLiteral("."));
        pending = names + pending;
        if (!path.startsWith('/'))
            return true;
        resolved.clear();
        directory = Descriptor(retried([] { return ::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC); }));
        return directory.isOpen();
    }

    // Opens what @a name names, or, where that is a link, queues the names it stands for.
    Descriptor step(const QByteArray &name)
    {
        followed = false;
        const int flags = pending.isEmpty() ? finalFlags : O_PATH;
        Descriptor found = openAt(directory, name, flags);
        const bool refused = !found.isOpen() && errno == ELOOP;
        if (refused)
            found = openAt(directory, name, O_PATH); // which opens the link itself
        struct stat status = {};
        if (!found.isOpen() || ::fstat(found.get(), &status) != 0)
            return Descriptor();
        if (S_ISLNK(status.st_mode)) {
            followed = follow(found, status.st_uid);
            return Descriptor();
        }
        if (refused) { // swapped just now
            errno = ELOOP;
            return Descriptor();
        }
        extend(name);
        return found;
    }

    bool follow(const Descriptor &link, uid_t owner)
    {
        if (owner != 0 && owner != ::geteuid()) {
            errno = EPERM;
            return false;
        }
        if (++links > linkLimit) {
            errno = ELOOP;
            return false;
        }
        QByteArray target(4096, Qt::Uninitialized); // PATH_MAX
        const ssize_t length =
            ::readlinkat(link.get(), "", target.data(), static_cast<size_t>(target.size()));
        if (length < 0)
            return false;
        target.truncate(static_cast<int>(length));
        return start(target);
    }

    void extend(const QByteArray &name)
    {
        if (name != "..")
            resolved += '/' + name;
        else if (const int slash = resolved.lastIndexOf('/'); slash >= 0)
            resolved.truncate(slash);
    }

    const int finalFlags;
    int links = 0;
    bool followed = false;
    QList<QByteArray> pending; // names still to go
    QByteArray resolved;       // of the directory below
    Descriptor directory;
};

// Holds SIGXFSZ back, which would end the process, and takes away the one that a write has caused.
class FileSizeSignalHold
{
public:
    FileSizeSignalHold()
    {
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGXFSZ);
        sigset_t waiting;
        sigpending(&waiting);
        wasWaiting = sigismember(&waiting, SIGXFSZ) == 1;
        pthread_sigmask(SIG_BLOCK, &blocked, &previous);
    }
    ~FileSizeSignalHold()
    {
        const int reason = errno;
        const timespec now = {};
        while (!wasWaiting && sigtimedwait(&blocked, nullptr, &now) == -1 && errno == EINTR) {
        }
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        errno = reason;
    }

    FileSizeSignalHold(const FileSizeSignalHold &) = delete;
    FileSizeSignalHold &operator=(const FileSizeSignalHold &) = delete;

private:
    sigset_t blocked;
    sigset_t previous;
    bool wasWaiting;
};

} // namespace

Descriptor &Descriptor::operator=(Descriptor &&other) noexcept
{
    reset(other.release());
    return *this;
}

int Descriptor::release()
{
    const int given = fd;
    fd = -1;
    return given;
}

bool Descriptor::reset(int descriptor)
{
    const int reason = errno; // what a failing function leaves to its caller
    const bool closed = fd < 0 || ::close(fd) == 0 || errno == EINTR; // interrupted it is closed, too
    fd = descriptor;
    if (closed)
        errno = reason;
    return closed;
}

Descriptor openOwn(const QString &path, int flags, mode_t mode)
{
    const QByteArray name = QFile::encodeName(path);
    for (int attempt = 0; attempt < openAttempts; ++attempt) {
        Descriptor file(retried([&] { return ::open(name.constData(), flags | alwaysAdded, mode); }));
        if (!file.isOpen())
            return file;
        const int reason = objection(file);
        if (reason == 0)
            return file;
        file.reset();
        errno = reason;
        if (reason != ENOENT)
            break;
    }
    return Descriptor();
}

Descriptor openJudged(const QString &path, QString *resolvedPath, int flags)
{
    QByteArray name = QFile::encodeName(path);
    if (!name.startsWith('/'))
        name.prepend(QFile::encodeName(QDir::currentPath()) + '/');

    Walk walk(flags);
    Descriptor found = walk.open(name);
    struct stat status = {};
    if (!found.isOpen() || ::fstat(found.get(), &status) != 0)
        return Descriptor();
    if ((flags & O_PATH) == 0 && !S_ISREG(status.st_mode)) {
        found.reset();
        errno = EINVAL;
        return found;
    }
    if (resolvedPath)
        *resolvedPath = QFile::decodeName(walk.resolvedPath());
    return found;
}

bool readAll(const Descriptor &descriptor, QByteArray *data, qint64 limit)
{
    std::array<char, 16 * 1024> block;
    data->clear();
    for (;;) {
        const ssize_t count = retried([&] { return ::read(descriptor.get(), block.data(), block.size()); });
        if (count <= 0)
            return count == 0;
        data->append(block.data(), static_cast<int>(count));
        if (data->size() > limit) {
            errno = EFBIG;
            return false;
        }
    }
}

ssize_t writeSome(int descriptor, const char *data, size_t size)
{
    struct rlimit limit = {};
    if (::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur == RLIM_INFINITY)
        return ::write(descriptor, data, size);
    const FileSizeSignalHold hold;
    return ::write(descriptor, data, size);
}

bool writeAll(const Descriptor &descriptor, const QByteArray &data)
{
    for (int done = 0; done < data.size();) {
        const ssize_t count = retried([&] {
            return writeSome(descriptor.get(), data.constData() + done,
                             static_cast<size_t>(data.size() - done));
        });
        if (count < 0)
            return false;
        if (count == 0) {
            errno = EIO;
            return false;
        }
        done += static_cast<int>(count);
    }
    return true;
}

} // namespace TrustedFile
