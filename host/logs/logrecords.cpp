#include "host/logs/logrecords.h"

#include "common/trustedfile.h"

#include <QFileInfo>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int dayMs = 24 * 3600 * 1000;
constexpr int nextDayStepMs =
    2 * 3600 * 1000; // a smaller one is a clock that was set, or the end of summer time
constexpr int stepBackMs = 60 * 1000;
constexpr int midnightMs = 10 * 1000; // threads may be out of order by so much
constexpr int anchorMs = 2 * 1000;    // a file's times are those of a record when they are as near
constexpr int readBytes = 64 * 1024;
constexpr int longestLine = 16 * 1024 * 1024;
constexpr int timeLength = 12;
constexpr int textColumn = 38; // behind time, blank and source
constexpr int blanksPerThread = 4;

/// "12:04:05.123 ..." @return ms of the day, or -1
int timeOfLine(const char *line, int size)
{
    constexpr char form[] = "00:00:00.000 ";
    if (size < textColumn)
        return -1;
    int digits[9];
    int count = 0;
    for (int i = 0; i <= timeLength; ++i) {
        const bool isDigit = line[i] >= '0' && line[i] <= '9';
        if (form[i] == '0' ? !isDigit : line[i] != form[i])
            return -1;
        if (isDigit)
            digits[count++] = line[i] - '0';
    }
    const auto pair = [&digits](int at) { return digits[at] * 10 + digits[at + 1]; };
    if (pair(0) > 23 || pair(2) > 59 || pair(4) > 60)
        return -1;
    return ((pair(0) * 60 + pair(2)) * 60 + pair(4)) * 1000 + pair(6) * 10 + digits[8];
}

int leadingBlanks(const QString &text, int from)
{
    int at = from;
    while (at < text.size() && text[at] == QLatin1Char(' '))
        ++at;
    return at - from;
}

WallTime wallTime(const QDate &day, int msOfDay)
{
    return day.toJulianDay() * dayMs + qMin(msOfDay, dayMs - 1);
}

QDateTime localTime(const statx_timestamp &stamp)
{
    return QDateTime::fromMSecsSinceEpoch(stamp.tv_sec * 1000 + stamp.tv_nsec / 1000000);
}

/// Whether a time of day was written at a moment.
bool isAt(int msOfDay, const QDateTime &moment)
{
    const int apart = qAbs(moment.time().msecsSinceStartOfDay() - msOfDay);
    return qMin(apart, dayMs - apart) <= anchorMs;
}

/// Counts the days of a file through, and finds those that left no trace in it.
CLogCalendar calendarOf(const QString &path, const CDescriptor &file)
{
    const QDate named = CLogReader::dayOfName(QFileInfo(path).fileName());
    struct statx times = {};
    if (::statx(file.get(), "", AT_EMPTY_PATH, STATX_MTIME | STATX_BTIME, &times) != 0)
        return CLogCalendar(named);
    const QDateTime changed = localTime(times.stx_mtime);
    if (changed.date() <= named)
        return CLogCalendar(named);

    const CDescriptor again = TrustedFile::openTrustedLinks(path);
    std::vector<char> bytes(readBytes);
    QByteArray rest;
    CLogCalendar counted(named);
    int first = -1;
    int previous = -1;
    int records = 0;
    int longest = -1;
    int silentRecord = 0;
    for (;;) {
        const ssize_t size = Io::retried([&] { return ::read(again.get(), bytes.data(), bytes.size()); });
        if (size <= 0)
            break;
        rest.append(bytes.data(), int(size));
        int start = 0;
        for (int end = rest.indexOf('\n'); end >= 0; start = end + 1, end = rest.indexOf('\n', start)) {
            const int time = timeOfLine(rest.constData() + start, end - start);
            if (time < 0)
                continue;
            const int silence = previous < 0 ? -1 : (time - previous + dayMs) % dayMs;
            const bool isOutOfOrder = silence > dayMs - nextDayStepMs;
            if (previous >= 0 && silence > longest && !isOutOfOrder) {
                longest = silence;
                silentRecord = records;
            }
            first = first < 0 ? time : first;
            previous = time;
            counted.dated(time);
            ++records;
        }
        rest = rest.size() - start > longestLine ? QByteArray() : rest.mid(start);
    }
    if (records == 0)
        return CLogCalendar(named);

    // A file that was emptied or moved away by a rotation begins later than its name says.
    const QDateTime born = localTime(times.stx_btime);
    const bool isBirthKnown = (times.stx_mask & STATX_BTIME) != 0 && born <= changed && isAt(first, born);
    const int late = isBirthKnown ? int(qMax<qint64>(0, named.daysTo(born.date()))) : 0;
    CLogCalendar result(named.addDays(late));
    const int missing = int(counted.lastDay().addDays(late).daysTo(changed.date()));
    if (missing > 0 && isAt(previous, changed))
        result.addSilence(silentRecord, missing);
    return result;
}

} // namespace

WallTime wallTime(const QDateTime &time)
{
    return wallTime(time.date(), time.time().msecsSinceStartOfDay());
}

QDateTime LogRecord::dateTime() const
{
    return QDateTime(QDate::fromJulianDay(time / dayMs), QTime::fromMSecsSinceStartOfDay(int(time % dayMs)));
}

void CLogCalendar::addSilence(int record, int days)
{
    silentRecord = record;
    silentDays = days;
}

WallTime CLogCalendar::dated(int msOfDay)
{
    if (isLive) {
        const QDateTime now = QDateTime::currentDateTime();
        const int nowMs = now.time().msecsSinceStartOfDay();
        const bool isYesterdays = msOfDay > nowMs + 1000 && nowMs < dayMs / 2;
        day = now.date().addDays(isYesterdays ? -1 : 0);
        return wallTime(day, msOfDay);
    }
    if (previous >= 0 && count == silentRecord)
        day = day.addDays(silentDays);
    ++count;
    if (previous >= 0 && previous <= midnightMs && msOfDay >= dayMs - midnightMs)
        return wallTime(day.addDays(-1), msOfDay); // of another thread, before midnight
    if (previous >= 0 && msOfDay < previous - nextDayStepMs)
        day = day.addDays(1);
    else if (previous >= 0 && msOfDay < previous - stepBackMs)
        ++back;
    previous = msOfDay;
    return wallTime(day, msOfDay);
}

QDate CLogReader::dayOfName(const QString &name)
{
    static const QRegularExpression form(QStringLiteral("_(\\d{4}\\.\\d\\d\\.\\d\\d)\\.log(?:[.-]\\d+)?$"));
    return QDate::fromString(form.match(name).captured(1), QStringLiteral("yyyy.MM.dd"));
}

CLogReader::CLogReader(const QString &filePath, qint64 endOffset)
    : path(filePath), file(TrustedFile::openTrustedLinks(filePath)), limit(endOffset)
{}

void CLogReader::watchFrom(qint64 offset)
{
    readUpTo = ::lseek(file.get(), offset, SEEK_SET);
    calendar.setLive();
    isDated = true;
}

void CLogReader::date()
{
    if (!isDated && file.isOpen())
        calendar = calendarOf(path, file);
    isDated = true;
}

quint64 CLogReader::inode() const
{
    struct stat status = {};
    return ::fstat(file.get(), &status) == 0 ? status.st_ino : 0;
}

/// Reads on. A file that has become shorter is read from its beginning.
bool CLogReader::fill()
{
    struct stat status = {};
    if (::fstat(file.get(), &status) == 0 && status.st_size < readUpTo) {
        readUpTo = ::lseek(file.get(), 0, SEEK_SET);
        buffer.clear();
        taken = 0;
    }
    buffer.remove(0, std::exchange(taken, 0));
    const qint64 wanted = limit < 0 ? readBytes : qMin<qint64>(readBytes, limit - readUpTo);
    const int before = buffer.size();
    buffer.resize(before + int(wanted));
    const ssize_t size = wanted <= 0 ? 0 : Io::retried([&] {
        return ::read(file.get(), buffer.data() + before, std::size_t(wanted));
    });
    buffer.resize(before + int(qMax<ssize_t>(0, size)));
    readUpTo += qMax<ssize_t>(0, size);
    return size > 0;
}

bool CLogReader::next(LogRecord *record, bool isFinal)
{
    date();
    for (;;) {
        const int end = buffer.indexOf('\n', taken);
        if (end >= 0) {
            const int start = std::exchange(taken, end + 1);
            if (takeLine(buffer.mid(start, end - start), record))
                return true;
            continue;
        }
        const bool isTooLong = buffer.size() - taken >= longestLine;
        if (!isTooLong && fill())
            continue;
        if (buffer.size() == taken)
            return giveUp(record); // a record is written in one go: no line of it is missing
        if (!isFinal && !isTooLong)
            return false;
        const QByteArray line = buffer.mid(std::exchange(taken, buffer.size()));
        if (takeLine(line, record))
            return true;
    }
}

/// @return whether the line begins a record and another one was pending
bool CLogReader::takeLine(const QByteArray &line, LogRecord *done)
{
    const int time = timeOfLine(line.constData(), line.size());
    const QString text = QString::fromUtf8(line);
    if (time < 0) {
        const int indent = textColumn + blanksPerThread * pending.thread;
        const bool isEmergency = pending.source == QLatin1String("forceDebug");
        if (isPending)
            pending.text += QLatin1Char('\n') +
                            text.mid(qMin(leadingBlanks(text, 0), isEmergency ? blanksPerThread : indent));
        return false;
    }
    const bool isDone = giveUp(done);
    isPending = true;
    pending.time = calendar.dated(time);
    pending.source = text.mid(timeLength + 1, textColumn - timeLength - 1).trimmed();
    const int blanks = leadingBlanks(text, textColumn);
    pending.thread = blanks / blanksPerThread;
    pending.text = text.mid(textColumn + pending.thread * blanksPerThread);
    pending.file = QFileInfo(path).fileName();
    return isDone;
}

bool CLogReader::giveUp(LogRecord *done)
{
    if (!isPending)
        return false;
    *done = std::exchange(pending, LogRecord());
    isPending = false;
    while (done->text.endsWith(QLatin1Char('\n')))
        done->text.chop(1);
    return true;
}

bool LogFilter::accepts(const LogRecord &record) const
{
    constexpr int sourceColumns = 25;
    const auto isSource = [&record](const QString &wanted) {
        const QString shown =
            wanted.size() <= sourceColumns ? wanted : wanted.left(sourceColumns - 3) + QLatin1String("...");
        return shown.compare(record.source, Qt::CaseInsensitive) == 0;
    };
    return record.time >= since && record.time <= until &&
           (sources.isEmpty() || std::any_of(sources.begin(), sources.end(), isSource)) &&
           (thread == 0 || record.thread == thread) &&
           (text.pattern().isEmpty() || text.match(record.text).hasMatch());
}
