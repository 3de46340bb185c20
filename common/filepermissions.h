// Creating directories and giving files the rights that the settings name.
//
// The rights (Permissions/dirPermissions, Permissions/filePermissions) are read once per process.
// Failures are logged with the source "Global". Somebody else's symbolic link is not followed.
// [any thread]; not while holding the log mutex.
#pragma once

#include "common/exports.h"

class QDir;
class QString;

namespace Global {

/// Creates @a dir with its missing parents and gives it the configured rights; inside the
/// installation directory also every level between the two, whether new or old. A directory that
/// exists already is left as it is.
/// @return whether the directory exists afterwards; rights that could not be given are only logged
RUNTIME_EXPORT bool makePath(const QDir &dir);

/// Gives an existing regular file the configured rights.
/// @return whether it has them afterwards; false without a log line when there is no such file
RUNTIME_EXPORT bool setFilePermissions(const QString &fileName);

/// The same for an open file or directory, whose name is for the log. Rights that have to survive a loss of
/// power are given so, before the descriptor is synced.
bool setFilePermissions(int descriptor, const QString &fileName);
bool setDirectoryPermissions(int descriptor, const QString &directory);

} // namespace Global
