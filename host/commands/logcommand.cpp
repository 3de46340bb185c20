// `abonent log`: the log of the process's level, selected and followed.
#include "host/commands/commands.h"

#include "common/global.h"
#include "host/cinterruption.h"
#include "host/commands/commandhelp.h"
#include "host/commands/commandline.h"
#include "host/commands/exitcodes.h"
#include "host/commands/failures.h"
#include "host/commands/journalcommand.h"
#include "host/console/jsonlines.h"
#include "host/console/printing.h"
#include "host/logs/clogs.h"
#include "host/text/untrustedtext.h"

#include <QThread>

#include <limits>

namespace {

constexpr int followPollMs = 250;
constexpr int followedBefore = 10; // records that are shown before those to come

/// As for the journal; besides, a time of today. @param isEnd of a day without a time its end is meant
QDateTime momentOf(const QString &text, bool isEnd)
{
    const QDateTime now = QDateTime::currentDateTime();
    for (const char *form : {"hh:mm", "hh:mm:ss"}) {
        const QTime time = QTime::fromString(text, QLatin1String(form));
        if (time.isValid())
            return QDateTime(now.date(), time);
    }
    const QDateTime moment = JournalCommand::sinceFromText(text, now);
    const bool isDay = QDate::fromString(text, Qt::ISODate).isValid();
    return isEnd && isDay ? moment.addDays(1).addMSecs(-1) : moment;
}

/// @return null on success, else what is wrong with the command line
QString readFilter(const CommandLine &line, LogFilter *filter)
{
    filter->sources = line.values("source");
    filter->thread = line.value("thread").toInt();
    const QDateTime since = momentOf(line.value("since"), false);
    const QDateTime until = momentOf(line.value("until"), true);
    if (since.isValid())
        filter->since = wallTime(since.toLocalTime());
    if (until.isValid())
        filter->until = wallTime(until.toLocalTime());
    const QString pattern = line.value("grep");
    filter->text =
        QRegularExpression(pattern, pattern == pattern.toLower() ? QRegularExpression::CaseInsensitiveOption
                                                                 : QRegularExpression::NoPatternOption);
    bool isCount = true;
    if (line.has("last"))
        line.value("last").toUInt(&isCount);
    const struct
    {
        const char *option;
        bool isGood;
    } looks[] = {{"since", since.isValid()},
                 {"until", until.isValid()},
                 {"thread", filter->thread > 0},
                 {"grep", filter->text.isValid()},
                 {"last", isCount}};
    for (const auto &look : looks) {
        if (line.has(look.option) && !look.isGood)
            return QStringLiteral("Значение параметра --%1 задано неверно: %2")
                .arg(QLatin1String(look.option), line.value(look.option));
    }
    return QString();
}

void print(const LogRecord &record, bool isJson)
{
    const QDateTime time = record.dateTime();
    if (isJson) {
        printJsonLine({{QStringLiteral("event"), QStringLiteral("record")},
                       {QStringLiteral("time"), jsonTime(time)},
                       {QStringLiteral("source"), record.source},
                       {QStringLiteral("thread"), record.thread},
                       {QStringLiteral("text"), record.text},
                       {QStringLiteral("file"), record.file}});
        return;
    }
    const QStringList lines = record.text.split(QLatin1Char('\n'));
    printLine(QStringLiteral("%1 [%2] %3: %4")
                  .arg(time.toString(QStringLiteral("dd.MM.yyyy hh:mm:ss.zzz")),
                       QString::number(record.thread), printable(record.source), printable(lines.first())));
    const QStringList rest = lines.mid(1);
    for (const QString &further : rest)
        printLine(further.isEmpty() ? further : QStringLiteral("    ") + printable(further));
}

/// @param last only so many of the latest
int showHistory(CLogHistory *history, const LogFilter &filter, int last, bool isJson)
{
    std::list<LogRecord> kept;
    LogRecord record;
    while (printingError() == 0 && history->next(&record)) {
        if (!filter.accepts(record))
            continue;
        if (last == std::numeric_limits<int>::max()) {
            print(record, isJson);
            continue;
        }
        kept.push_back(record);
        if (int(kept.size()) > last)
            kept.pop_front();
    }
    for (const LogRecord &late : kept)
        print(late, isJson);
    int code = ExitDone;
    for (const QString &trouble : history->troubles())
        code = fail(ExitTrouble, trouble);
    return code;
}

} // namespace

int runLog(const CommandLine &line)
{
    LogFilter filter;
    const QString mistake = readFilter(line, &filter);
    if (!mistake.isNull())
        return refuse(line, mistake);

    CInterruption::release();
    const QDir directory = Global::logDir(Global::currentSecrecy());
    const bool isJson = line.has("json");
    const bool isFollowing = line.has("follow");
    const int most = std::numeric_limits<int>::max();
    const int last = line.has("last")                    ? line.value("last").toInt()
                     : isFollowing && !line.has("since") ? followedBefore
                                                         : most;
    if (directory.entryList({QStringLiteral("*.log*")}, QDir::Files).isEmpty())
        printError(QStringLiteral("В каталоге %1 лога нет").arg(directory.absolutePath()));
    if (!isFollowing) {
        CLogHistory history(directory, filter);
        return showHistory(&history, filter, last, isJson);
    }
    CLogTail tail(directory);
    CLogHistory history(directory, filter, tail.sizes());
    if (!tail.sizes().isEmpty())
        showHistory(&history, filter, last, isJson);
    const auto isOver = [&filter] { return wallTime(QDateTime::currentDateTime()) > filter.until; };
    while (printingError() == 0 && !isOver()) {
        for (const LogRecord &record : tail.take()) {
            if (filter.accepts(record))
                print(record, isJson);
        }
        QThread::msleep(followPollMs);
    }
    return ExitDone;
}
