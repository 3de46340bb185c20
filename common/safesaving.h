// Replacing a file without ever losing its contents.
//
//   F.new  the new contents, while they are being written       F.old  the previous contents
//
//   F, F.new  -->  F.old, F.new  -->  F.old, F  -->  F          what a save passes through
//
// The contents and their rights are on the disk before any name changes, and the names before F.old goes. So
// after a crash or a loss of power at any moment F or F.old holds a whole version, old or new.
//
// A result is a null text for success, otherwise a Russian text for the user; its cause is in the
// log, source "Global". [any thread]; two saves of one file are serialised by the callers.
#pragma once

#include "common/exports.h"

class QByteArray;
class QString;

namespace Global {

/// Replaces the contents of @a fileName by @a data and gives it the configured rights. A missing
/// directory is created. Bounded by Details/maxWritingTime as far as the system lets go of a write.
RUNTIME_EXPORT QString safeSaving(const QString &fileName, const QByteArray &data);

/// Moves the finished file @a newFileName onto @a fileName; both lie in one file system.
/// On failure the new contents stay in @a newFileName. Call it "%1.new", so that recoverSaved() knows what a
/// crash has left.
RUNTIME_EXPORT QString safeSaving(const QString &newFileName, const QString &fileName);

/// Puts "%1.old" back where a crash in the middle of a save has left @a fileName missing: beside it lie
/// ".old" and ".new" then. A ".old" alone is left alone, since somebody has deleted the file. Whoever reads
/// files that are saved safely calls it before reading.
/// @return a null text also when there was nothing to do
RUNTIME_EXPORT QString recoverSaved(const QString &fileName);

} // namespace Global
