// All logs of one directory: their records in the order of time, and what is appended to them.
#pragma once

#include "host/logs/logrecords.h"

#include <QDir>
#include <QHash>

#include <deque>
#include <list>
#include <memory>
#include <utility>

/// How long the logs are at some moment, by name.
using LogSizes = QHash<QString, qint64>;

/// What has been logged. Opens a file only when its day has come.
class CLogHistory
{
public:
    /// @param wanted files that hold nothing of its time are not opened; the records are not filtered
    /// @param endSizes only what the files held then; empty: all
    CLogHistory(const QDir &place, const LogFilter &wanted, const LogSizes &endSizes = LogSizes());

    /// @return false when there is no further record
    bool next(LogRecord *record);

    /// Files that could not be read, with the reason, in Russian.
    const QStringList &troubles() const { return unreadable; }

private:
    struct Open
    {
        std::unique_ptr<CLogReader> reader;
        LogRecord record; // the next one of it
    };

    void open(const QString &name);

    const QDir directory;
    const LogSizes sizes;
    std::deque<std::pair<WallTime, QString>> waiting; // the earliest time that a file may hold, and its name
    std::list<Open> opened;
    QStringList unreadable;
};

/// What is being logged: records that are appended to any log of the directory, in new files and files that
/// take the place of others as well. It has to be asked again and again.
class CLogTail
{
public:
    explicit CLogTail(const QDir &place);

    /// What the logs held when it was made: the rest is the tail's.
    const LogSizes &sizes() const { return begin; }

    /// Takes what has been appended since the last call.
    std::list<LogRecord> take();

private:
    struct File
    {
        std::unique_ptr<CLogReader> reader; // null: not open
        qint64 size = 0;                    // that has been read, when it was last open
    };

    void open(const QString &name, qint64 from);

    const QDir directory;
    LogSizes begin;
    QHash<QString, std::shared_ptr<File>> files;
    QStringList order; // names of those that are open, first what was opened first
};
