// Last words: a record in the log with as little machinery as possible.
//
// No lock, no settings, no echo, no head for a new file, no permissions. The runtime never calls it.
#pragma once

#include "common/exports.h"

#include <QString>

/// Appends @a text to the log file of this process, marked forceDebug. A text that cannot be written
/// is lost silently; only a directory that cannot be made is said to the Qt message stream.
/// [any thread] Takes no lock; the record may land between two records of debug().
RUNTIME_EXPORT void emergecyDebug(const QString &text);
