#include "host/logs/clogs.h"
#include "host/text/reasons.h"

#include <QFileInfo>

#include <algorithm>

#include <sys/stat.h>

namespace {

/// Names of logs, by day.
QStringList logNames(const QDir &directory)
{
    QStringList names = directory.entryList({QStringLiteral("*.log*")}, QDir::Files, QDir::Name);
    const auto isOther = [](const QString &name) { return !CLogReader::dayOfName(name).isValid(); };
    names.erase(std::remove_if(names.begin(), names.end(), isOther), names.end());
    std::stable_sort(names.begin(), names.end(), [](const QString &a, const QString &b) {
        return CLogReader::dayOfName(a) < CLogReader::dayOfName(b);
    });
    return names;
}

/// Those that may still be written to: not what a rotation has put aside.
QStringList growingLogs(const QDir &directory)
{
    return logNames(directory).filter(QRegularExpression(QStringLiteral("\\.log$")));
}

quint64 inodeOf(const QString &path)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_ino : 0;
}

} // namespace

CLogHistory::CLogHistory(const QDir &place, const LogFilter &wanted, const LogSizes &endSizes)
    : directory(place), sizes(endSizes)
{
    const QStringList names = logNames(directory);
    for (const QString &name : names) {
        const WallTime first = wallTime(QDateTime(CLogReader::dayOfName(name), QTime(0, 0)));
        const bool isEarlier =
            wallTime(QFileInfo(directory.absoluteFilePath(name)).lastModified()) < wanted.since;
        if (first <= wanted.until && !isEarlier && (sizes.isEmpty() || sizes.contains(name)))
            waiting.emplace_back(first, name);
    }
}

void CLogHistory::open(const QString &name)
{
    Open entry;
    entry.reader = std::make_unique<CLogReader>(directory.absoluteFilePath(name), sizes.value(name, -1));
    if (!entry.reader->isOpen())
        unreadable << QStringLiteral("Не удалось прочитать %1. %2")
                          .arg(name, reasonOf(errno, directory.absoluteFilePath(name)));
    else if (entry.reader->next(&entry.record, true))
        opened.push_back(std::move(entry));
}

bool CLogHistory::next(LogRecord *record)
{
    const auto earliest = [this] {
        return std::min_element(opened.begin(), opened.end(),
                                [](const Open &a, const Open &b) { return a.record.time < b.record.time; });
    };
    auto first = earliest();
    while (!waiting.empty() && (opened.empty() || waiting.front().first <= first->record.time)) {
        open(waiting.front().second);
        waiting.pop_front();
        first = earliest();
    }
    if (opened.empty())
        return false;
    *record = first->record;
    if (!first->reader->next(&first->record, true))
        opened.erase(first);
    return true;
}

CLogTail::CLogTail(const QDir &place) : directory(place)
{
    const QStringList names = growingLogs(directory);
    for (const QString &name : names) {
        const qint64 size = QFileInfo(directory.absoluteFilePath(name)).size();
        begin.insert(name, size);
        open(name, size);
    }
}

/// From its first byte to its last, a file that is open is read even when it gets another name meanwhile.
void CLogTail::open(const QString &name, qint64 from)
{
    constexpr int mostOpen = 64; // those of the latest days; others are looked at by name
    auto file = std::make_shared<File>();
    file->size = from;
    file->reader = std::make_unique<CLogReader>(directory.absoluteFilePath(name));
    if (file->reader->isOpen())
        file->reader->watchFrom(from);
    else
        file->reader.reset();
    files.insert(name, file);
    order.removeAll(name);
    order << name;
    if (order.size() > mostOpen) {
        const std::shared_ptr<File> oldest = files.value(order.takeFirst());
        oldest->size = oldest->reader ? oldest->reader->offset() : oldest->size;
        oldest->reader.reset();
    }
}

std::list<LogRecord> CLogTail::take()
{
    std::list<LogRecord> records;
    const auto read = [&records](const std::shared_ptr<File> &file) {
        LogRecord record;
        while (file->reader && file->reader->next(&record, false))
            records.push_back(record);
    };
    const QStringList names = growingLogs(directory);
    for (const QString &name : names) {
        const QString path = directory.absoluteFilePath(name);
        const std::shared_ptr<File> file = files.value(name);
        if (file && file->reader) {
            read(file);
            if (file->reader->inode() == inodeOf(path))
                continue;
            read(file); // another one has its name now: what came until then
            open(name, 0);
        } else {
            const qint64 size = QFileInfo(path).size();
            const qint64 known = file ? file->size : 0;
            if (file && size == known)
                continue;
            open(name, size < known ? 0 : known);
        }
        read(files.value(name));
    }
    return records;
}
