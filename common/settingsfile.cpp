#include "common/settingsfile.h"

#include "common/trustedfile.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr qint64 freshNs = 20000000; // longer than the coarsest clock of a file system in use ticks
constexpr int mostAttempts = 3;      // to open a file that is there, and was not a moment before

qint64 nanoseconds(const timespec &time)
{
    return static_cast<qint64>(time.tv_sec) * 1000000000 + time.tv_nsec;
}

// Any change of an input changes the result, but for one chance in 2^64.
quint64 mixed(quint64 hash, quint64 value)
{
    hash = (hash ^ value) * 0x9e3779b97f4a7c15u;
    return hash ^ (hash >> 29);
}

quint64 idOf(const struct stat &status)
{
    quint64 hash = 0x51ed270b;
    for (const quint64 value : {quint64(status.st_dev), quint64(status.st_ino), quint64(status.st_size),
                                quint64(nanoseconds(status.st_mtim)), quint64(nanoseconds(status.st_ctim))})
        hash = mixed(hash, value);
    return std::max<quint64>(hash, SettingsFile::Stamp::Unknown + 1);
}

bool writeNew(const QString &path, const QByteArray &text, unsigned mode, int *modeError)
{
    const CDescriptor made = TrustedFile::openNoFollow(path, O_WRONLY | O_CREAT | O_EXCL, 0600);
    if (!made.isOpen())
        return false;
    *modeError = ::fchmod(made.get(), mode) == 0 ? 0 : errno;
    return Io::writeAll(made, text) && Io::retried([&] { return ::fdatasync(made.get()); }) == 0;
}

} // namespace

namespace SettingsFile {

bool Stamp::isFresh() const
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return std::abs(nanoseconds(now) - changedAtNs) < freshNs;
}

Stamp stamp(const char *path)
{
    struct stat status = {};
    if (::stat(path, &status) == 0)
        return {idOf(status), std::max(nanoseconds(status.st_mtim), nanoseconds(status.st_ctim)),
                nanoseconds(status.st_mtim)};
    const bool isAbsent = (errno == ENOENT || errno == ENOTDIR) && ::lstat(path, &status) != 0;
    return {isAbsent ? Stamp::Absent : Stamp::Unreachable, 0, 0};
}

bool isPassing(int reason)
{
    return reason == EMFILE || reason == ENFILE || reason == ENOMEM || reason == EIO;
}

bool read(const QString &path, Contents *contents)
{
    *contents = Contents();
    contents->path = path;
    CDescriptor file = TrustedFile::openTrustedLinks(path, &contents->path);
    for (int attempt = 1; !file.isOpen(); ++attempt) {
        const int reason = errno;
        contents->path = path;
        const bool isAbsent = stamp(QFile::encodeName(path).constData()).id == Stamp::Absent;
        if (isAbsent || reason != ENOENT || attempt == mostAttempts) {
            errno = reason;
            return isAbsent;
        }
        file = TrustedFile::openTrustedLinks(path, &contents->path); // another process has just made it
    }
    struct stat status = {};
    if (::fstat(file.get(), &status) != 0)
        return false;
    contents->mode = status.st_mode & 07777u;
    contents->id = idOf(status);
    return Io::readAll(file, &contents->text, sizeLimit);
}

bool replace(const Contents &old, const QByteArray &text, int *modeError)
{
    const QByteArray name = QFile::encodeName(old.path);
    // The new file could take the place of one that was meant to stay as it is.
    if (::faccessat(AT_FDCWD, name.constData(), W_OK, AT_EACCESS) != 0 && errno != ENOENT)
        return false;

    const QString newPath = old.path + QStringLiteral(".new");
    const QByteArray newName = QFile::encodeName(newPath);
    ::unlink(newName.constData()); // left over from a crash, or planted
    bool isDone = writeNew(newPath, text, old.mode, modeError);
    if (isDone && stamp(name.constData()).id != old.id) {
        isDone = false;
        errno = EAGAIN;
    }
    if (!isDone || ::rename(newName.constData(), name.constData()) != 0) {
        const int reason = errno;
        ::unlink(newName.constData());
        errno = reason;
        return false;
    }
    return true;
}

} // namespace SettingsFile
