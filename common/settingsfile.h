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

    qint64 changedAtNs = 0;  // since 1970, of the latest change of contents, rights or names
    qint64 modifiedAtNs = 0; // of the latest change of contents

    /// Whether that is so recent that another change might leave the same time behind.
    bool isFresh() const;
};

/// One stat(2). @param path encoded for the system. [any thread]
Stamp stamp(const char *path);

/// Of the longest text that is read.
constexpr int sizeLimit = 4 * 1024 * 1024;

/// What a file holds, and what it takes to replace it.
struct Contents
{
    QByteArray text;
    QString path;         // of the file itself, behind any links
    unsigned mode = 0666; // its permissions
    quint64 id = Stamp::Absent;
};

/// Reads the file, if it is a regular one, behind no link but root's or our user's, not above the limit of
/// size. An absent one is empty.
/// @return whether @a contents are all of it; if not, errno tells why
bool read(const QString &path, Contents *contents);

/// Whether a failure tells of a passing lack (of descriptors, memory, a disk that answers) and nothing about
/// the file.
bool isPassing(int reason);

/// Puts @a text in the place of @a old through a new file beside it, on disk before it gets the name, so
/// that every reader and every crash finds the old or the new text. Only under the settings lock.
/// @param modeError set to 0, or to why the new file has not got the permissions of the old one
/// @return whether it was replaced; if not, errno tells why (EAGAIN: somebody who does not care for locks
///         has changed it meanwhile) and what is there is untouched
bool replace(const Contents &old, const QByteArray &text, int *modeError);

} // namespace SettingsFile
