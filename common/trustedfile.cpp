#include "common/trustedfile.h"

#include <QDir>
#include <QFile>
#include <QList>

#include <cerrno>

#include <sys/stat.h>
#include <unistd.h>

using Io::retried;

namespace TrustedFile {

namespace {

constexpr int openAttempts = 3;
constexpr int linkLimit = 8;
constexpr int alwaysAdded = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

// @return 0, or why what was opened is not to be used
int objection(const CDescriptor &file, bool needsOneName)
{
    struct stat status = {};
    if (::fstat(file.get(), &status) != 0)
        return errno;
    if (!S_ISREG(status.st_mode))
        return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    if (!needsOneName || status.st_nlink == 1)
        return 0;
    return status.st_nlink == 0 ? ENOENT : EMLINK; // deleted between open and here, or another name elsewhere
}

CDescriptor judged(CDescriptor file, bool needsOneName)
{
    const int reason = objection(file, needsOneName);
    if (reason != 0)
        file.reset();
    errno = reason;
    return file;
}

CDescriptor openAt(const CDescriptor &directory, const QByteArray &name, int flags, mode_t mode = 0)
{
    return CDescriptor(
        retried([&] { return ::openat(directory.get(), name.constData(), flags | alwaysAdded, mode); }));
}

// A way through directories and links, one name at a time, of which every step is held open.
class Walk
{
public:
    Walk(int flags, mode_t mode) : finalFlags(flags), newMode(mode) {}

    CDescriptor open(const QByteArray &path)
    {
        if (!start(path))
            return CDescriptor();
        while (!pending.isEmpty()) {
            const QByteArray name = pending.takeFirst();
            CDescriptor next = step(name);
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
        directory = CDescriptor(retried([] { return ::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC); }));
        return directory.isOpen();
    }

    // Opens what @a name names, or, where that is a link, queues the names it stands for.
    CDescriptor step(const QByteArray &name)
    {
        followed = false;
        const int flags = pending.isEmpty() ? finalFlags : O_PATH;
        CDescriptor found = openAt(directory, name, flags, newMode);
        const bool refused = !found.isOpen() && errno == ELOOP;
        if (refused)
            found = openAt(directory, name, O_PATH); // which opens the link itself
        struct stat status = {};
        if (!found.isOpen() || ::fstat(found.get(), &status) != 0)
            return CDescriptor();
        if (S_ISLNK(status.st_mode)) {
            followed = follow(found, status.st_uid);
            return CDescriptor();
        }
        if (refused) { // swapped just now
            errno = ELOOP;
            return CDescriptor();
        }
        extend(name);
        return found;
    }

    bool follow(const CDescriptor &link, uid_t owner)
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
    const mode_t newMode;
    int links = 0;
    bool followed = false;
    QList<QByteArray> pending; // names still to go
    QByteArray resolved;       // of the directory below
    CDescriptor directory;
};

} // namespace

CDescriptor openNoFollow(const QString &path, int flags, mode_t mode)
{
    const QByteArray name = QFile::encodeName(path);
    for (int attempt = 0; attempt < openAttempts; ++attempt) {
        CDescriptor file(retried([&] { return ::open(name.constData(), flags | alwaysAdded, mode); }));
        if (!file.isOpen())
            return file;
        file = judged(std::move(file), true);
        if (file.isOpen() || errno != ENOENT)
            return file;
    }
    return CDescriptor();
}

CDescriptor openTrustedLinks(const QString &path, QString *resolvedPath, int flags, mode_t mode)
{
    QByteArray name = QFile::encodeName(path);
    if (!name.startsWith('/'))
        name.prepend(QFile::encodeName(QDir::currentPath()) + '/');

    Walk walk(flags, mode);
    CDescriptor found = walk.open(name);
    if (found.isOpen() && (flags & O_PATH) == 0)
        found = judged(std::move(found), (flags & O_ACCMODE) != O_RDONLY);
    if (found.isOpen() && resolvedPath)
        *resolvedPath = QFile::decodeName(walk.resolvedPath());
    return found;
}

QString readingErrorText(int reason)
{
    return reason == EISDIR ? QStringLiteral("file to open is a directory") : qt_error_string(reason);
}

} // namespace TrustedFile
