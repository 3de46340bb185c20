// What was sent, received and refused, for good: data/LEVEL/journals_2.2.db, an SQLite database.
//
//   add() --> queue --> writer thread --> one synced transaction for all that is queued
//
// Nobody who adds waits for the disk. What cannot be written (full disk, damage, a later version's file)
// costs journal rows and a line in the log, never a message. A damaged journal is put aside as
// journals_2.2.db.damaged-DATE, and a new one is begun. Several processes may write and read at once.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QVector>

#include <array>
#include <atomic>
#include <memory>

/// What happened; the numbers are in the file.
enum class JournalRow
{
    Received = 1,
    Sent = 2, // delivered: the receiver has it on disk
    Refused = 3,
    BrokenOff = 4,
    Started = 5,
    Stopped = 6,
    KeyChanged = 7,
};
constexpr int journalRowKinds = 8; // with 0, which is none

/// What of one kind a program has added since it began.
struct JournalCount
{
    qint64 rows = 0;
    qint64 bytes = 0; // of the messages
};

/// A name for scripts: "received", "sent", "refused", "broken-off", "started", "stopped", "key-changed".
QString journalRowName(JournalRow kind);

struct JournalEntry
{
    JournalRow kind = JournalRow::Started;
    QString abonent;   // the other side; empty where there is none
    QString name;      // of a file or directory; empty for a text
    qint64 size = -1;  // bytes; -1 where it means nothing
    QByteArray digest; // SHA-256, 32 bytes; may be empty
    QString text;      // reason, or what else there is to say
    QString message;   // identity of the message in hexadecimal; may be empty
    QDateTime date;    // set by add() when invalid; read back with the offset it was written with
};

/// A row for people, without its date: "принято, 'Борис', отчет.pdf, 7 Байт". Foreign text stands in it as it
/// came: printable() before a terminal.
QString journalLine(const JournalEntry &entry);

/// What was received from one abonent.
struct JournalTotals
{
    int messages = 0;
    qint64 bytes = 0;
};

/// How long rows are kept; looked at when the journal is opened and then once a day.
struct JournalRetention
{
    int days = 0; // 0: for ever
    int rows = 0; // the latest ones; 0: all
};

class CMessageJournal
{
public:
    /// Opens nothing yet: the writer thread does, at the first row.
    /// @param path elsewhere for tests
    explicit CMessageJournal(int level, const JournalRetention &retention = JournalRetention(),
                             const QString &path = QString());

    /// Writes what is queued; gives up after 5 s, with a line in the log.
    ~CMessageJournal();

    CMessageJournal(const CMessageJournal &) = delete;
    CMessageJournal &operator=(const CMessageJournal &) = delete;

    /// Takes a row; it is on the disk soon. Also a line in the log while Debug/journals is on.
    /// [any thread] Never waits for the disk. Of more than 10000 waiting rows the newest are dropped and
    /// counted.
    void add(JournalEntry entry);

    /// How much of a kind has been added by this object, written or not. [any thread]
    JournalCount count(JournalRow kind) const;

    /// Waits until what was added before is on the disk.
    /// @return false when that did not happen in time, or the rows could not be written
    /// [any thread]
    bool flush(int timeoutMs);

    /// Reads the latest rows, oldest first, also while other processes write.
    ///
    /// @param since rows of this moment and later; invalid: all
    /// @param with an abonent, compared by Global::filterName(); empty: all
    /// @param limit at most so many; 0: all
    /// @param trouble in Russian, null when nothing is wrong; a journal that does not exist is empty
    /// [any thread]
    static QVector<JournalEntry> entries(const QString &path, const QDateTime &since, const QString &with,
                                         int limit, QString *trouble);

    /// How much has been received from @a with since a moment. Nothing when the journal cannot be read. [any
    /// thread]
    static JournalTotals received(const QString &path, const QDateTime &since, const QString &with);

private:
    class Writer;
    std::unique_ptr<Writer> writer;
    std::array<std::atomic<qint64>, journalRowKinds> addedRows{}; // by kind; any thread
    std::array<std::atomic<qint64>, journalRowKinds> addedBytes{};
};
