// Opening files in directories that everybody may write to.
//
// The directories of an installation are open to all users (0777), so under any name that the
// runtime is about to open somebody may have planted a link, a FIFO or a device. Nothing here
// follows a link blindly or blocks, and nothing asks first and opens afterwards: what is judged is
// what is open. Failures leave the reason in errno.
#pragma once

#include <QByteArray>
#include <QString>

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
/// @param flags of open(2); O_NOFOLLOW, O_NONBLOCK and O_CLOEXEC are added
/// @param mode used when O_CREAT makes the file, under the process's umask
/// @return closed on failure, errno tells why (ELOOP a link, EMLINK several names, EINVAL not a
///         regular file)
/// [any thread]
Descriptor openOwn(const QString &path, int flags, mode_t mode = 0666);

/// Opens for reading a file that an administrator may have replaced by a link.
///
/// A link is followed only when it belongs to root or to the process's own user, at most eight in a
/// row; every step works on what is already open, so nothing can be swapped in between.
/// @param resolvedPath if given, the path of the file that was opened in the end
/// @return closed on failure, errno tells why (EPERM somebody else's link, ELOOP too many, EINVAL
///         not a regular file, ENOENT no such file)
/// [any thread]
Descriptor openJudged(const QString &path, QString *resolvedPath = nullptr);

/// Reads all of @a descriptor from where it stands. @return false on an error, errno tells why
bool readAll(const Descriptor &descriptor, QByteArray *data);

/// Writes all of @a data, as many calls as it takes. @return false on an error, errno tells why
bool writeAll(const Descriptor &descriptor, const QByteArray &data);

} // namespace TrustedFile
