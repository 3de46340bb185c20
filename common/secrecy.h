// The secrecy level of the process, found by probing where it may write.
//
// The operating system decides in which level's data directory a process may write; we do not ask
// it, we try. The probed directories are open to all users, so the probe's name cannot be foreseen
// and nothing that lies under it already is opened.
//
// Troubles go to the Qt message stream. Every call probes afresh: callers keep the result.
// [any thread]; also several at once in one directory.
#pragma once

#include "common/exports.h"

class QDir;

namespace Global {

/// Whether the process can create @a directory (if it is missing, with its parents) and create and
/// delete a file in it. A directory that was created stays. Removes what this user's killed processes have
/// left of their probes.
RUNTIME_EXPORT bool checkAccess(const QDir &directory);

/// checkAccess() of the data directory of @a level.
RUNTIME_EXPORT bool checkSecrecy(int level);

/// The first of the levels 0, 1, 2, 3 that passes; 0 and a critical message when none does.
/// Creates the data directories of the levels up to the one found, where it may.
RUNTIME_EXPORT int currentSecrecy();

} // namespace Global
