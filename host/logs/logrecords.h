// Records of the log, read back from its lines (docs/files.md draws them).
//
// The lines carry a time of day only. The day comes from the name of the file; a time that goes back by more
// than two hours begins the next one. Whole days without a record leave no trace in the lines, so a file that
// was written for several days is looked through first: how far its last change is from where counting ends
// tells how many days are missing, and they are put where the log was silent longest.
#pragma once

#include "common/descriptor.h"

#include <QByteArray>
#include <QDateTime>
#include <QRegularExpression>
#include <QString>
#include <QStringList>

#include <limits>

/// A local time as the clock on the wall shows it: milliseconds, whole days from the Julian day number.
/// Making a QDateTime asks the system for the time zone each time, which takes longer than all else about a
/// record.
using WallTime = qint64;

WallTime wallTime(const QDateTime &time);

struct LogRecord
{
    WallTime time = 0;
    QString source;
    int thread = 0; // indentation of its thread, from 1; 0: unknown. Blanks before the text count as threads
    QString text;   // lines joined by line feeds
    QString file;   // name, without directory

    QDateTime dateTime() const;
};

/// The day of one time of day after another.
class CLogCalendar
{
public:
    explicit CLogCalendar(const QDate &firstDay = QDate()) : day(firstDay) {}

    /// After @a record more records (from 0) there are @a days that left no trace.
    void addSilence(int record, int days);

    /// From now on records are dated as they are written: by the clock.
    void setLive() { isLive = true; }

    WallTime dated(int msOfDay);

    /// How often the time went back by more than a minute, but not past midnight.
    int stepsBack() const { return back; }

    QDate lastDay() const { return day; }

private:
    QDate day;
    int previous = -1; // ms of the day
    int silentRecord = -1;
    int silentDays = 0;
    int count = 0;
    int back = 0;
    bool isLive = false;
};

/// The records of one file, one after another, also while it grows. Head of the file and torn lines before
/// the first record are passed over.
class CLogReader
{
public:
    /// @param endOffset how much of the file counts; negative: all
    explicit CLogReader(const QString &filePath, qint64 endOffset = -1);

    /// @return the day in a name such as "abonent_user_2026.11.23.log", of rotated ones, too; invalid when it
    /// is no log
    static QDate dayOfName(const QString &name);

    /// Whether the file is there to be read; errno tells why not.
    bool isOpen() const { return file.isOpen(); }

    /// Only what stands behind @a offset is read, and dated by the clock: for who watches the file grow.
    void watchFrom(qint64 offset);

    /// @param isFinal the file does not grow: a line without an end is one
    /// @return false when there is no further record at present
    bool next(LogRecord *record, bool isFinal);

    /// How far what has been given out reaches.
    qint64 offset() const { return readUpTo - (buffer.size() - taken); }
    quint64 inode() const;
    int stepsBack() const { return calendar.stepsBack(); }

private:
    void date();
    bool fill();
    bool takeLine(const QByteArray &line, LogRecord *done);
    bool giveUp(LogRecord *done);

    const QString path;
    CDescriptor file;
    const qint64 limit;
    qint64 readUpTo = 0;
    QByteArray buffer;
    int taken = 0; // of the buffer
    CLogCalendar calendar;
    bool isDated = false; // the calendar is that of the file
    LogRecord pending;    // its further lines may follow
    bool isPending = false;
};

/// What of the log is wanted.
struct LogFilter
{
    WallTime since = std::numeric_limits<WallTime>::min();
    WallTime until = std::numeric_limits<WallTime>::max();
    QStringList sources;
    int thread = 0; // 0: all
    QRegularExpression text;

    bool accepts(const LogRecord &record) const;
};
