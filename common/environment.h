// What surrounds the process: user name, free space, edition, and the emergency-exit flag. [any thread]
#pragma once

#include "common/exports.h"

#include <QString>

class QDir;
class QStorageInfo;

namespace Global {

/// The value of the environment variable USER; a null text when it is not set.
RUNTIME_EXPORT QString currentSystemUserName();

/// The file system that holds @a directory, or, where it is missing, its next existing parent.
/// @return an invalid one when there is none
QStorageInfo storageOf(QDir directory);

/// Bytes of @a storage that the user may still fill, or, where that is none, bytes free at all; -1 for an
/// invalid one.
long long freeBytes(const QStorageInfo &storage);

/// Bytes available on the file system that holds @a path; -1 when neither it nor its directory exists.
RUNTIME_EXPORT long long diskFreeSpace(const QString &path);

/// "linux edition"
RUNTIME_EXPORT QString edition();

/// A flag for the whole process, false at start. The runtime keeps it and never looks at it.
RUNTIME_EXPORT bool isEmergecyExit();
RUNTIME_EXPORT void setEmergecyExit(bool value);

} // namespace Global
