// Small helpers around file descriptors, for the rooms that keep messages on the disk.
#pragma once

#include <QByteArray>
#include <QString>

#include <string_view>

/// Closes *descriptor, if it is one, and makes it -1. errno stays as it is.
void closeDescriptor(int *descriptor);

/// @return whether all of it was written; errno tells why not
bool writeAll(int descriptor, std::string_view bytes);

/// @return how much was read: less than @a size at the end of the file, -1 on failure
qint64 readAll(int descriptor, char *bytes, qint64 size);

/// Opens a directory for its own sake, no link. @return -1 on failure
int openDirectory(const QString &path);

/// Syncs a directory, so that the names in it last. @return whether that went well
bool syncDirectory(const QString &path);

/// Removes a file, or a directory with all that is in it; follows no link. @return whether it is gone
bool removeTree(int parent, const QByteArray &name);

/// What errno says, in Russian.
QString systemReason();
