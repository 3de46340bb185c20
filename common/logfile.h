// Where the log of this process lies, and how records get into it.
//
// The place depends on the secrecy level, the user and the date of the first write. It is found once
// and forgotten only after a failure, so a log begun before midnight keeps its name.
#pragma once

#include "common/descriptor.h"
#include "common/filewatch.h"

#include <QByteArray>
#include <QMutex>
#include <QString>

#include <optional>
#include <string_view>

#include <sys/types.h>

/// Directory and file of the log, absolute.
struct LogPlace
{
    QString directory;
    QString file;
};

namespace LogFile {

/// Finds the secrecy level by probing (which may create data directories) and names the log of today.
/// [any thread] Blocks for a few file operations.
LogPlace findPlace();

/// Makes the log's directory with its parents unless it exists, and says the failure to the Qt stream.
/// @param created set to whether it was made here
/// @return whether it is there
bool makeDirectory(const QString &directory, bool *created);

} // namespace LogFile

/// What appending may need and must not ask for under the log's lock: other rooms' answers.
struct LogPreparation
{
    enum Kind
    {
        Nothing = 0,
        Place = 1,           // where to write
        DirectoryRights = 2, // for a directory that was made
        FileRights = 4,      // for a file that is to be made
        Head = 8             // of a file that is empty
    };

    /// Asks for what @a kinds name. Takes other rooms' locks: call it with none of ours held.
    void get(int kinds);

    /// Those of @a kinds that are still to be asked for.
    int lacks(int kinds) const { return kinds & ~ready; }

    int ready = Nothing;
    LogPlace place;
    mode_t directoryMode = 0;
    mode_t fileMode = 0;
    QByteArray head;
};

/// The log of this module, open between records.
///
/// [any thread] All calls under the DebugData mutex; a lock of its own covers the moment when the
/// binding is replaced.
class CLogFile
{
public:
    /// Appends a @a record as one write; if that comes up short, line by line as far as it goes.
    ///
    /// Failures are said to the Qt stream, so hold the messages back.
    /// @return Nothing when done (written or given up), or what has to be prepared before trying again
    int append(std::string_view record, const LogPreparation &preparation);

private:
    bool isStillThere();
    int open(const LogPreparation &preparation);
    int makeReady(const LogPreparation &preparation);
    CDescriptor create(const LogPreparation &preparation) const;
    void giveRights(const CDescriptor &file, const LogPreparation &preparation) const;
    void keep(CDescriptor opened);
    void writeLines(std::string_view record, ssize_t written);
    void endTornLine();
    ssize_t writeSome(std::string_view data) const;
    void forget();

    QMutex mutex; // guards all below
    LogPlace place;
    bool placeIsKnown = false;
    bool directoryIsNew = false; // and has not got its rights
    bool lineIsTorn = false;     // the last line lacks its end
    QByteArray encodedPath;
    CKeptDescriptor descriptor{CKeptDescriptor::Log};

    // What is open, to be found again under its path: another one there means somebody renamed it.
    quint64 inode = 0;
    dev_t device = 0;
    mode_t mode = 0;
    int lookFlags = 0; // whether the name itself is asked or what it leads to

    std::optional<CFileWatch> watch; // since the file was opened
    bool sizeIsLimited = true;       // RLIMIT_FSIZE, as of the last look
};
