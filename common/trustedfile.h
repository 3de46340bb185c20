// Opening files in directories that everybody may write to.
//
// The directories of an installation are open to all users (0777), so under any name that the
// runtime is about to open somebody may have planted a link, a FIFO or a device. Nothing here
// follows a link blindly or blocks, and nothing asks first and opens afterwards: what is judged is
// what is open. Failures leave the reason in errno.
#pragma once

#include <QByteArray>
#include <QString>

#include <cerrno>

#include <fcntl.h>
#include <sys/types.h>

namespace TrustedFile {

/// A descriptor that closes itself.
class Descriptor
{
public:
    explicit Descriptor(int descriptor = -1) : fd(descriptor) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor &&other) noexcept : fd(other.release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept;

    bool isOpen() const { return fd >= 0; }
    int get() const { return fd; }

    /// Gives the descriptor away.
    int release();

    /// Closes; @return whether close() succeeded (true when nothing was open)
    bool reset(int descriptor = -1);

private:
    int fd;
};

/// Opens a file that the runtime itself makes (log, probe, companion of a save).
///
/// No link is followed, nothing blocks; what is open is a regular file with one name.
/// @param flags of open(2), without O_TRUNC; O_NOFOLLOW, O_NONBLOCK and O_CLOEXEC are added
/// @param mode used when O_CREAT makes the file, under the process's umask
/// @return closed on failure, errno tells why (ELOOP a link, EMLINK several names, EINVAL not a
///         regular file)
/// [any thread]
Descriptor openOwn(const QString &path, int flags, mode_t mode = 0666);

/// Opens what an administrator may have replaced by a link: a settings file, or a directory above it.
///
/// A link, wherever in the path, is followed only when it belongs to root or to the process's own
/// user, at most eight in all; every step works on what is already open, so nothing can be swapped in
/// between.
/// @param resolvedPath if given, the path without links of what was opened in the end
/// @param flags O_RDONLY for a regular file to read; O_PATH for anything, to ask and to give rights
/// @return closed on failure, errno tells why (EPERM somebody else's link, ELOOP too many, EINVAL
///         not a regular file, ENOENT no such file)
/// [any thread]
Descriptor openJudged(const QString &path, QString *resolvedPath = nullptr, int flags = O_RDONLY);

/// More than any file that the runtime reads; what is longer was planted.
constexpr qint64 sizeLimit = 16 * 1024 * 1024;

/// Reads all of @a descriptor from where it stands.
/// @return false on an error, errno tells why (EFBIG longer than @a limit)
bool readAll(const Descriptor &descriptor, QByteArray *data, qint64 limit = sizeLimit);

/// One write(). A limit on the size of files makes it fail with EFBIG, not end the process.
/// @return bytes written, or -1 and errno
ssize_t writeSome(int descriptor, const char *data, size_t size);

/// Writes all of @a data, as many calls as it takes. @return false on an error, errno tells why
bool writeAll(const Descriptor &descriptor, const QByteArray &data);

/// Runs a system call again that a signal has interrupted, but not for ever.
template <typename Call>
auto retried(const Call &call)
{
    auto result = call();
    for (int again = 0; again < 5 && result == -1 && errno == EINTR; ++again)
        result = call();
    return result;
}

} // namespace TrustedFile
