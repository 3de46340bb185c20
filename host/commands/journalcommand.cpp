// `abonent journal`: what was sent, received and refused.
#include "host/commands/journalcommand.h"

#include "common/global.h"
#include "host/commands/commandhelp.h"
#include "host/commands/commandline.h"
#include "host/commands/commands.h"
#include "host/commands/exitcodes.h"
#include "host/commands/failures.h"
#include "host/commands/newslines.h"
#include "host/console/jsonlines.h"
#include "host/console/printing.h"
#include "host/delivery/cmessagejournal.h"
#include "host/text/untrustedtext.h"

namespace {

QString lineOf(const JournalEntry &entry)
{
    return entry.date.toString(QStringLiteral("dd.MM.yyyy hh:mm:ss ")) + printable(journalLine(entry));
}

} // namespace

namespace JournalCommand {

QDateTime sinceFromText(const QString &text, const QDateTime &now)
{
    constexpr struct
    {
        char unit;
        qint64 seconds;
    } units[] = {{'m', 60}, {'h', 3600}, {'d', 24 * 3600}};
    bool isNumber = false;
    const qint64 count = text.leftRef(text.size() - 1).toInt(&isNumber);
    for (const auto &entry : units) {
        if (isNumber && count >= 0 && text.endsWith(QLatin1Char(entry.unit)))
            return now.addSecs(-count * entry.seconds);
    }
    return QDateTime::fromString(QString(text).replace(QLatin1Char(' '), QLatin1Char('T')), Qt::ISODate);
}

int show(const QDateTime &since, const QString &with)
{
    QString trouble;
    const QVector<JournalEntry> entries = CMessageJournal::entries(
        Global::journalsFilePath(Global::currentSecrecy()), since, with, 0, &trouble);
    for (const JournalEntry &entry : entries) {
        if (outputStyle() == OutputStyle::Json)
            printJsonLine(jsonOf(entry));
        else
            printLine(lineOf(entry));
    }
    return trouble.isNull() ? int(ExitDone) : fail(ExitTrouble, trouble);
}

} // namespace JournalCommand

int runJournal(const CommandLine &line)
{
    QDateTime since;
    if (line.has("since"))
        since = JournalCommand::sinceFromText(line.value("since"), QDateTime::currentDateTime());
    for (const char *option : {"since", "with"}) {
        const bool isGood = option == QByteArray("since") ? since.isValid()
                                                          : !Global::filterName(line.value("with")).isEmpty();
        if (line.has(option) && !isGood)
            return refuse(line, QStringLiteral("Значение параметра --%1 задано неверно: %2")
                                    .arg(QLatin1String(option), line.value(option)));
    }
    return JournalCommand::show(since, line.value("with"));
}
