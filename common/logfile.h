// Where the log of this process lies, and how records get into it.
//
// The place depends on the secrecy level, the user and the date of the first write. It is found once
// and forgotten only after a failure, so a log begun before midnight keeps its name.
#pragma once

#include "common/filewatch.h"
#include "common/trustedfile.h"

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
        Place = 1,      // where to write
        Permissions = 2 // settings and summary, for making the directory and the file
    };

    /// Asks for what @a kinds name. Takes other rooms' locks: call it with none of ours held.
    void get(int kinds);

    int ready = Nothing;
    LogPlace place;
    mode_t directoryMode = 0;
    mode_t fileMode = 0;
    QByteArray summary; // the head of a new file
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
    void create(const LogPreparation &preparation);
    void begin(const LogPreparation &preparation);
    void remember();
    void writeLines(std::string_view record, ssize_t written);
    void endTornLine();
    ssize_t writeSome(std::string_view data) const;
    void forget();

    QMutex mutex; // guards all below
    LogPlace place;
    bool placeIsKnown = false;
    bool lineIsTorn = false; // the last line this module wrote lacks its end
    QByteArray encodedPath;
    TrustedFile::Descriptor descriptor;

    // What is open, to be found again under its path: another one there means somebody renamed it.
    quint64 inode = 0;
    dev_t device = 0;
    mode_t mode = 0;

    std::optional<CFileWatch> watch; // since the file was opened
    bool sizeIsLimited = true;       // RLIMIT_FSIZE, as of the last look
};
