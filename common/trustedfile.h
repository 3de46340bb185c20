// Opening files in directories that everybody may write to.
//
// The directories of an installation are open to all users (0777), so under any name that the
// runtime is about to open somebody may have planted a link, a FIFO or a device. Nothing here
// follows a link blindly or blocks, and nothing asks first and opens afterwards: what is judged is
// what is open. Failures leave the reason in errno.
#pragma once

#include "common/descriptor.h"

#include <QString>

#include <fcntl.h>
#include <sys/types.h>

namespace TrustedFile {

/// Opens a file that only the runtime itself makes (probe, companion of a save, lock).
///
/// No link is followed, nothing blocks; what is open is a regular file with one name.
/// @param flags of open(2), without O_TRUNC; O_NOFOLLOW, O_NONBLOCK and O_CLOEXEC are added
/// @param mode used when O_CREAT makes the file, under the process's umask
/// @return closed on failure, errno tells why (ELOOP a link, EMLINK several names, EISDIR a directory, EINVAL
///         something else that is not a regular file)
/// [any thread]
CDescriptor openNoFollow(const QString &path, int flags, mode_t mode = 0666);

/// Opens what an administrator may have replaced by a link: a settings file, the log, or a directory above.
///
/// A link, wherever in the path, is followed only when it belongs to root or to the process's own
/// user, at most eight in all; every step works on what is already open, so nothing can be swapped in
/// between. What is opened for writing has one name.
/// @param resolvedPath if given, the path without links of what was opened in the end
/// @param flags of open(2) as above for a regular file; O_PATH for anything, to ask and to give rights
/// @param mode as above; a file is made where a link leads to nothing yet, too
/// @return closed on failure, errno tells why (EPERM somebody else's link, ELOOP too many, and as above)
/// [any thread]
CDescriptor openTrustedLinks(const QString &path, QString *resolvedPath = nullptr, int flags = O_RDONLY,
                             mode_t mode = 0666);

/// Why a file could not be opened for reading, in the words of QFile::errorString().
/// @param reason errno
QString readingErrorText(int reason);

} // namespace TrustedFile
