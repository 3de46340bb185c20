// settings.ini as a file: has it changed, what does it hold, and how it is replaced.
#pragma once

#include <QByteArray>
#include <QString>

namespace SettingsFile {

/// Tells one state of a file from another.
struct Stamp
{
    enum : quint64
    {
        Absent = 0,      // no such file, not even a link that leads nowhere
        Unreachable = 1, // something is there that cannot be asked
        Unknown = 2      // never looked; equals no file's
    };

    quint64 id = Unknown; // over inode, device, size and time of the last change in nanoseconds

    /// The file has been changed so recently that another change might leave the same time behind.
    bool isFresh = false;
};

/// One stat(2). @param path encoded for the system. [any thread]
Stamp stamp(const char *path);

/// Reads the file, if it is a regular one, behind no link but root's or our user's, not above 4 MiB.
/// @param resolvedPath the file that was read
/// @param mode its permissions
/// @return whether @a text holds all of it; if not, errno tells why
bool read(const QString &path, QByteArray *text, QString *resolvedPath, unsigned *mode);

/// Puts @a text in the file's place through a new file beside it, on disk before it gets the name, so
/// that every reader and every crash finds the old or the new text. Only under the settings lock.
/// @param mode permissions of the new file
/// @param modeError set to 0, or to why it has not got them
/// @return whether it was replaced; if not, errno tells why and the old one is untouched
bool replace(const QString &path, const QByteArray &text, unsigned mode, int *modeError);

} // namespace SettingsFile
