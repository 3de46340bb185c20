#include "host/delivery/cmessagejournal.h"
#include "host/text/reasons.h"

#include "common/global.h"
#include "common/logger.h"
#include "common/settingslock.h"
#include "common/terminationguard.h"
#include "common/trustedfile.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <sqlite3.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <limits>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr int mostWaiting = 10000;        // rows
constexpr int mostInTransaction = 1000;   // rows
constexpr int busyMs = 5000;              // for another process's transaction
constexpr int farewellMs = 5000;          // for what is queued at the end
constexpr int retryMs = 500;              // after a failed transaction
constexpr int gatherMs = 50;              // after a transaction: what comes meanwhile goes into one
constexpr int toleratedBusy = 5;          // failed transactions in a row that another process may cause
constexpr qint64 checkedBytes = 16 << 20; // larger files are not read through when they are opened
constexpr qint64 dayMs = 24 * 3600 * 1000;
constexpr int formatVersion = 1;

// Times are milliseconds since 1970, UTC; abonent_key is Global::filterName() of the abonent. Other tables in
// the file are left alone.
constexpr char schema[] =
    "CREATE TABLE IF NOT EXISTS message_journal ("
    " id INTEGER PRIMARY KEY AUTOINCREMENT,"
    " time_ms INTEGER NOT NULL,"
    " utc_offset_s INTEGER NOT NULL,"
    " kind INTEGER NOT NULL,"
    " abonent TEXT NOT NULL,"
    " abonent_key TEXT NOT NULL,"
    " name TEXT NOT NULL,"
    " size INTEGER NOT NULL,"
    " digest BLOB NOT NULL,"
    " message TEXT NOT NULL,"
    " text TEXT NOT NULL);"
    "CREATE INDEX IF NOT EXISTS message_journal_time ON message_journal (time_ms);"
    "CREATE INDEX IF NOT EXISTS message_journal_abonent ON message_journal (abonent_key, time_ms);"
    "CREATE TABLE IF NOT EXISTS message_journal_format (version INTEGER NOT NULL);"
    "INSERT INTO message_journal_format SELECT 1 WHERE NOT EXISTS (SELECT 1 FROM message_journal_format);";

constexpr char insertion[] =
    "INSERT INTO message_journal"
    " (time_ms, utc_offset_s, kind, abonent, abonent_key, name, size, digest, message, text)"
    " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";

constexpr char selection[] =
    "SELECT time_ms, utc_offset_s, kind, abonent, name, size, digest, message, text FROM message_journal"
    " WHERE time_ms >= ?1 AND (?2 = '' OR abonent_key = ?2) ORDER BY id DESC LIMIT ?3";

constexpr struct
{
    JournalRow kind;
    const char *name;
    const char *text;
} kinds[] = {
    {JournalRow::Received, "received", "принято"},
    {JournalRow::Sent, "sent", "передано"},
    {JournalRow::Refused, "refused", "отказано"},
    {JournalRow::BrokenOff, "broken-off", "оборвано"},
    {JournalRow::Started, "started", "запуск"},
    {JournalRow::Stopped, "stopped", "остановка"},
    {JournalRow::KeyChanged, "key-changed", "изменился ключ"},
};

void log(const QString &text, DebugLevel level = DebugAlways)
{
    debug(QStringLiteral("CMessageJournal"), text, level, DebugFlagNone);
}

void warn(const QString &text)
{
    debug(QStringLiteral("CMessageJournal"), text, DebugAlways, DebugFlagFileOnly);
    qWarning("%s", text.toUtf8().constData());
}

QString textOf(JournalRow kind)
{
    for (const auto &entry : kinds) {
        if (entry.kind == kind)
            return QString::fromUtf8(entry.text);
    }
    return QStringLiteral("неизвестно");
}

struct FreeStatement
{
    void operator()(sqlite3_stmt *owned) const { sqlite3_finalize(owned); }
};

/// One prepared statement; values are bound in order.
class Statement
{
public:
    Statement(sqlite3 *database, const char *sql)
    {
        sqlite3_stmt *made = nullptr;
        sqlite3_prepare_v2(database, sql, -1, &made, nullptr);
        statement.reset(made);
    }

    Statement &bind(qint64 value)
    {
        sqlite3_bind_int64(statement.get(), ++bound, value);
        return *this;
    }
    Statement &bind(const QString &value)
    {
        const QByteArray text = value.toUtf8();
        sqlite3_bind_text(statement.get(), ++bound, text.constData(), text.size(), SQLITE_TRANSIENT);
        return *this;
    }
    Statement &bind(const QByteArray &value)
    {
        sqlite3_bind_blob(statement.get(), ++bound, value.isNull() ? "" : value.constData(), value.size(),
                          SQLITE_TRANSIENT);
        return *this;
    }

    int step() { return statement ? sqlite3_step(statement.get()) : SQLITE_ERROR; }

    void reset()
    {
        sqlite3_reset(statement.get());
        bound = 0;
    }

    qint64 number(int column) { return sqlite3_column_int64(statement.get(), column); }
    QString text(int column)
    {
        const auto bytes = static_cast<const char *>(sqlite3_column_blob(statement.get(), column));
        return QString::fromUtf8(bytes, sqlite3_column_bytes(statement.get(), column));
    }
    QByteArray blob(int column)
    {
        const auto bytes = static_cast<const char *>(sqlite3_column_blob(statement.get(), column));
        return QByteArray(bytes, sqlite3_column_bytes(statement.get(), column));
    }

private:
    std::unique_ptr<sqlite3_stmt, FreeStatement> statement;
    int bound = 0;
};

bool isDamage(int code)
{
    return (code & 0xff) == SQLITE_CORRUPT || (code & 0xff) == SQLITE_NOTADB;
}

/// An open journal. One thread at a time.
class Database
{
public:
    ~Database() { close(); }

    bool isOpen() const { return handle != nullptr; }
    sqlite3 *get() const { return handle; }

    QString message() const { return handle ? QString::fromUtf8(sqlite3_errmsg(handle)) : reasonOf(errno); }
    int code() const { return handle ? sqlite3_errcode(handle) : SQLITE_CANTOPEN; }

    /// Opens an existing file. @return an SQLite code
    int open(const QString &path, int flags)
    {
        close();
        // SQLite refuses links anywhere in a path; those of root above the file are the administrator's.
        QString directory;
        const QFileInfo info(path);
        if (!TrustedFile::openTrustedLinks(info.absolutePath(), &directory, O_PATH).isOpen())
            return SQLITE_CANTOPEN;
        const QByteArray name = QFile::encodeName(directory + QLatin1Char('/') + info.fileName());
        const int result = sqlite3_open_v2(name.constData(), &handle,
                                           flags | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_FULLMUTEX, nullptr);
        if (result != SQLITE_OK) {
            close();
            return result;
        }
        sqlite3_extended_result_codes(handle, 0);
        sqlite3_busy_timeout(handle, busyMs);
        file = statusOf(path);
        return SQLITE_OK;
    }

    void close()
    {
        sqlite3_close_v2(handle);
        handle = nullptr;
    }

    int run(const char *sql) { return sqlite3_exec(handle, sql, nullptr, nullptr, nullptr); }

    /// The number that a statement gives; -1 when it gives none.
    qint64 number(const char *sql)
    {
        Statement statement(handle, sql);
        return statement.step() == SQLITE_ROW ? statement.number(0) : -1;
    }

    /// Whether the name still leads to what is open: another process may have put it aside.
    bool isStill(const QString &path) const
    {
        const struct stat now = statusOf(path);
        return now.st_ino == file.st_ino && now.st_dev == file.st_dev;
    }

    qint64 size() const { return file.st_size; }

private:
    static struct stat statusOf(const QString &path)
    {
        struct stat status = {};
        if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
            status = {};
        return status;
    }

    sqlite3 *handle = nullptr;
    struct stat file = {};
};

/// Makes an empty file with the configured rights, unless there is one.
void makeFile(const QString &path)
{
    Global::makePath(QFileInfo(path).absoluteDir());
    const CDescriptor made = TrustedFile::openNoFollow(path, O_RDWR | O_CREAT | O_EXCL, 0600);
    if (made.isOpen())
        Global::setFilePermissions(path);
}

} // namespace

QString journalRowName(JournalRow kind)
{
    for (const auto &entry : kinds) {
        if (entry.kind == kind)
            return QString::fromLatin1(entry.name);
    }
    return QStringLiteral("unknown");
}

QString journalLine(const JournalEntry &entry)
{
    QStringList parts{textOf(entry.kind)};
    if (!entry.abonent.isEmpty())
        parts << QStringLiteral("'%1'").arg(entry.abonent);
    if (!entry.name.isEmpty())
        parts << entry.name;
    if (entry.size >= 0)
        parts << QStringLiteral("%1 Байт").arg(entry.size);
    if (!entry.text.isEmpty())
        parts << entry.text;
    return parts.join(QStringLiteral(", "));
}

/// The thread that writes, and what waits for it.
class CMessageJournal::Writer
{
public:
    Writer(const QString &filePath, const JournalRetention &kept) : path(filePath), retention(kept) {}

    void add(const JournalEntry &entry)
    {
        const std::lock_guard locker(mutex);
        if (waiting.size() >= mostWaiting) {
            ++dropped;
            return;
        }
        waiting.push_back(entry);
        ++added;
        if (waiting.size() == 1)
            work.notify_one();
        if (!thread.joinable())
            start();
    }

    bool flush(int timeoutMs)
    {
        std::unique_lock locker(mutex);
        const quint64 wanted = awaited = added;
        work.notify_one();
        done.wait_for(locker, std::chrono::milliseconds(timeoutMs),
                      [&] { return written >= wanted || hasGivenUp; });
        return written >= wanted;
    }

    void stop()
    {
        flush(farewellMs);
        {
            const std::lock_guard locker(mutex);
            isStopping = true;
            work.notify_one();
        }
        if (thread.joinable())
            thread.join();
        if (!waiting.empty())
            log(QStringLiteral("Не записано в журнал сообщений строк: %1").arg(waiting.size()));
    }

private:
    // Not a QThread, which ends the process when there is no descriptor for its dispatcher.
    void start()
    {
        try {
            thread = std::thread([this] {
                run();
                deleteThreadTabLevel(QThread::currentThread());
            });
        } catch (const std::system_error &) { // no threads left: the rows wait for a better moment
        }
    }

    void run()
    {
        std::unique_lock locker(mutex);
        for (;;) {
            work.wait(locker, [this] { return !waiting.empty() || isStopping; });
            work.wait_until(locker, rested, [this] { return written < awaited || isStopping; });
            if (isStopping)
                return;
            const auto count = std::min<std::size_t>(waiting.size(), mostInTransaction);
            const std::vector<JournalEntry> rows(waiting.begin(), waiting.begin() + std::ptrdiff_t(count));
            const int droppedBefore = std::exchange(dropped, 0);
            locker.unlock();

            if (droppedBefore > 0)
                log(QStringLiteral("Журнал сообщений не успевал: пропущено строк %1").arg(droppedBefore));
            const bool isWritten = write(rows);
            const bool isLater = isOfLaterVersion;

            locker.lock();
            if (isWritten || isLater)
                waiting.erase(waiting.begin(), waiting.begin() + std::ptrdiff_t(count));
            if (isWritten)
                written += count;
            hasGivenUp = isLater;
            rested = std::chrono::steady_clock::now() + std::chrono::milliseconds(gatherMs);
            done.notify_all();
            if (!isWritten && !isLater) // a pause, cut short by the end only
                work.wait_for(locker, std::chrono::milliseconds(retryMs), [this] { return isStopping; });
        }
    }

    /// @return whether all rows are on the disk
    bool write(const std::vector<JournalEntry> &rows)
    {
        // The second attempt goes to the file that has taken the place of a damaged one.
        for (int attempt = 0; attempt < 2 && !isOfLaterVersion; ++attempt) {
            if (database.isOpen() && !database.isStill(path))
                database.close();
            int result = database.isOpen() ? SQLITE_OK : open();
            if (result == SQLITE_OK)
                result = insert(rows);
            if (result == SQLITE_OK) {
                trouble.clear();
                busyAttempts = 0;
                return true;
            }
            database.close();
            const QString reason = QString::fromUtf8(sqlite3_errstr(result));
            if (isDamage(result) && putAside(reason))
                continue;
            // Several processes that begin at once may find the file busy for a moment.
            if ((result & 0xff) != SQLITE_BUSY || ++busyAttempts > toleratedBusy)
                complain(QStringLiteral("Журнал сообщений %1 не пишется. %2").arg(path, reason));
            return false;
        }
        return false;
    }

    int open()
    {
        makeFile(path);
        int result = database.open(path, SQLITE_OPEN_READWRITE);
        if (result == SQLITE_OK && database.size() > 0 && database.size() <= checkedBytes)
            result = check();
        // Readers are not in the way of the writer, and one sync is enough for a transaction.
        if (result == SQLITE_OK)
            result = database.run("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;");
        if (result == SQLITE_OK)
            result = database.run("BEGIN IMMEDIATE;");
        if (result == SQLITE_OK)
            result = database.run(schema);
        if (result == SQLITE_OK)
            result = database.run("COMMIT;");
        if (result != SQLITE_OK)
            return result;
        if (database.number("SELECT max(version) FROM message_journal_format") > formatVersion) {
            isOfLaterVersion = true;
            warn(QStringLiteral("Журнал сообщений %1 ведет более новая версия программы: записей не будет")
                     .arg(path));
            return SQLITE_ERROR;
        }
        prune();
        return SQLITE_OK;
    }

    int check()
    {
        Statement statement(database.get(), "PRAGMA quick_check(1)");
        const int result = statement.step();
        if (result != SQLITE_ROW)
            return database.code() == SQLITE_OK ? result : database.code();
        return statement.text(0) == QLatin1String("ok") ? SQLITE_OK : SQLITE_CORRUPT;
    }

    int insert(const std::vector<JournalEntry> &rows)
    {
        if (lastPruned.hasExpired(dayMs))
            prune();
        int result = database.run("BEGIN IMMEDIATE;");
        Statement statement(database.get(), insertion);
        for (std::size_t i = 0; i < rows.size() && result == SQLITE_OK; ++i) {
            const JournalEntry &row = rows[i];
            statement.reset();
            statement.bind(row.date.toMSecsSinceEpoch())
                .bind(qint64(row.date.offsetFromUtc()))
                .bind(qint64(row.kind))
                .bind(row.abonent)
                .bind(Global::filterName(row.abonent))
                .bind(row.name)
                .bind(row.size)
                .bind(row.digest)
                .bind(row.message)
                .bind(row.text);
            const int stepped = statement.step();
            result = stepped == SQLITE_DONE ? SQLITE_OK : stepped;
        }
        statement.reset();
        if (result == SQLITE_OK)
            result = database.run("COMMIT;");
        if (result != SQLITE_OK && sqlite3_get_autocommit(database.get()) == 0)
            sqlite3_exec(database.get(), "ROLLBACK;", nullptr, nullptr, nullptr);
        return result;
    }

    /// Deletes what has been kept long enough.
    void prune()
    {
        lastPruned.start();
        if (retention.days > 0) {
            Statement statement(database.get(), "DELETE FROM message_journal WHERE time_ms < ?");
            statement.bind(QDateTime::currentMSecsSinceEpoch() - retention.days * dayMs).step();
        }
        if (retention.rows > 0) {
            Statement statement(database.get(), "DELETE FROM message_journal WHERE id <="
                                                " (SELECT max(id) FROM message_journal) - ?");
            statement.bind(qint64(retention.rows)).step();
        }
    }

    /// Gives a damaged journal another name. @return whether there is room for a new one now
    bool putAside(const QString &reason)
    {
        CSettingsLock lock(path);
        if (!lock.take(busyMs))
            return false;
        const int result = open();
        if (result == SQLITE_OK)
            return true; // another process has begun a new one
        database.close();
        if (!isDamage(result))
            return false;
        const QString aside =
            QStringLiteral("%1.damaged-%2")
                .arg(path, QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss-zzz")));
        const auto rename = [&](const char *ending) {
            const QByteArray from = QFile::encodeName(path) + ending;
            const QByteArray to = QFile::encodeName(aside) + ending;
            return ::renameat2(AT_FDCWD, from.constData(), AT_FDCWD, to.constData(), RENAME_NOREPLACE) == 0;
        };
        // What belongs to it first: a new journal must not find the pages of the old one.
        rename("-wal");
        rename("-shm");
        rename("-journal");
        if (!rename(""))
            return false;
        warn(QStringLiteral("Журнал сообщений %1 испорчен (%2): отложен в %3, начат новый")
                 .arg(path, reason, aside));
        return true;
    }

    void complain(const QString &text)
    {
        if (text != trouble)
            warn(text);
        trouble = text;
    }

    const QString path;
    const JournalRetention retention;

    // The writer thread's own.
    Database database;
    QElapsedTimer lastPruned;
    QString trouble; // told last
    int busyAttempts = 0;
    bool isOfLaterVersion = false; // the file

    std::mutex mutex; // guards the following; held for moments only
    std::thread thread;
    std::condition_variable work;
    std::condition_variable done;
    std::deque<JournalEntry> waiting;
    quint64 added = 0;
    quint64 written = 0;
    quint64 awaited = 0;                          // somebody waits until so many are written
    std::chrono::steady_clock::time_point rested; // when the next transaction may begin, unless awaited
    int dropped = 0;
    bool hasGivenUp = false; // what waits will never be written
    bool isStopping = false;
};

CMessageJournal::CMessageJournal(int level, const JournalRetention &retention, const QString &path)
    : writer(std::make_unique<Writer>(path.isNull() ? Global::journalsFilePath(level) : path, retention))
{}

CMessageJournal::~CMessageJournal()
{
    writer->stop();
}

void CMessageJournal::add(JournalEntry entry)
{
    if (!entry.date.isValid())
        entry.date = QDateTime::currentDateTime();
    ++addedRows[std::size_t(entry.kind)];
    addedBytes[std::size_t(entry.kind)] += std::max<qint64>(entry.size, 0);
    log(journalLine(entry), DebugJournals);
    writer->add(entry);
}

JournalCount CMessageJournal::count(JournalRow kind) const
{
    return {addedRows[std::size_t(kind)], addedBytes[std::size_t(kind)]};
}

bool CMessageJournal::flush(int timeoutMs)
{
    return writer->flush(timeoutMs);
}

QVector<JournalEntry> CMessageJournal::entries(const QString &path, const QDateTime &since,
                                               const QString &with, int limit, QString *trouble)
{
    const CTerminationGuard guard;
    QVector<JournalEntry> result;
    *trouble = QString();
    if (!QFileInfo::exists(path))
        return result;
    Database database;
    database.open(path, SQLITE_OPEN_READONLY);
    if (database.isOpen() &&
        database.number("SELECT count(*) FROM sqlite_master WHERE name = 'message_journal'") == 0)
        return result;
    Statement statement(database.get(), selection);
    statement.bind(since.isValid() ? since.toMSecsSinceEpoch() : std::numeric_limits<qint64>::min())
        .bind(Global::filterName(with))
        .bind(qint64(limit > 0 ? limit : -1));
    int step = database.isOpen() ? statement.step() : SQLITE_CANTOPEN;
    for (; step == SQLITE_ROW; step = statement.step()) {
        JournalEntry entry;
        entry.date =
            QDateTime::fromMSecsSinceEpoch(statement.number(0), Qt::OffsetFromUTC, int(statement.number(1)));
        entry.kind = JournalRow(statement.number(2));
        entry.abonent = statement.text(3);
        entry.name = statement.text(4);
        entry.size = statement.number(5);
        entry.digest = statement.blob(6);
        entry.message = statement.text(7);
        entry.text = statement.text(8);
        result.prepend(entry);
    }
    if (step != SQLITE_DONE)
        *trouble = QStringLiteral("Журнал сообщений %1 не читается. %2").arg(path, database.message());
    return result;
}

JournalTotals CMessageJournal::received(const QString &path, const QDateTime &since, const QString &with)
{
    const CTerminationGuard guard;
    JournalTotals totals;
    Database database;
    if (database.open(path, SQLITE_OPEN_READONLY) != SQLITE_OK)
        return totals;
    Statement statement(database.get(), "SELECT count(*), total(size) FROM message_journal"
                                        " WHERE kind = 1 AND abonent_key = ? AND time_ms >= ?");
    statement.bind(Global::filterName(with)).bind(since.isValid() ? since.toMSecsSinceEpoch() : 0);
    if (statement.step() == SQLITE_ROW) {
        totals.messages = int(statement.number(0));
        totals.bytes = statement.number(1);
    }
    return totals;
}
