// Directories and whole files by their descriptors, for the rooms that keep messages on the disk.
// What opens, closes and writes stands in common/descriptor.h.
#pragma once

#include "common/descriptor.h"

#include <QByteArray>
#include <QString>

#include <optional>
#include <vector>

/// @return how much was read: less than @a size at the end of the file, -1 on failure (errno)
qint64 readUpTo(const CDescriptor &file, char *bytes, qint64 size);

/// Copies what is left of a file behind what is in another one.
/// @return how much that was, -1 on failure (errno)
qint64 copyRest(const CDescriptor &from, const CDescriptor &to);

/// Opens a directory for its own sake, no link; closed on failure (errno).
CDescriptor openDirectory(const QString &path);
CDescriptor openDirectory(const CDescriptor &parent, const QByteArray &name);

/// The names in a directory, but "." and "..". @return nothing on failure (errno)
std::optional<std::vector<QByteArray>> namesIn(const CDescriptor &directory);

/// Removes a file, or a directory with all that is in it; follows no link. @return whether it is gone
bool removeTree(int parent, const QByteArray &name);
