// `abonent journal`: what was sent, received and refused.
#include "host/commands/journalcommand.h"

#include "common/global.h"
#include "host/commands/commandline.h"
#include "host/commands/commands.h"
#include "host/commands/exitcodes.h"
#include "host/console/untrustedtext.h"
#include "host/delivery/cmessagejournal.h"

#include <QJsonObject>

#include <cstdio>

namespace {

void print(const QString &text)
{
    std::fputs((text + QLatin1Char('\n')).toUtf8().constData(), stdout);
}

int answer(int code, const QString &text)
{
    std::fputs((printable(text) + QLatin1Char('\n')).toUtf8().constData(), stderr);
    return code;
}

QString jsonOf(const JournalEntry &entry)
{
    QJsonObject object{{QStringLiteral("time"), entry.date.toString(Qt::ISODateWithMs)},
                       {QStringLiteral("kind"), journalRowName(entry.kind)},
                       {QStringLiteral("abonent"), entry.abonent},
                       {QStringLiteral("name"), entry.name},
                       {QStringLiteral("sha256"), QString::fromLatin1(entry.digest.toHex())},
                       {QStringLiteral("message"), entry.message},
                       {QStringLiteral("text"), entry.text}};
    if (entry.size >= 0)
        object.insert(QStringLiteral("size"), entry.size);
    return jsonLine(object);
}

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
    const qint64 count = text.left(text.size() - 1).toInt(&isNumber);
    for (const auto &entry : units) {
        if (isNumber && count >= 0 && text.endsWith(QLatin1Char(entry.unit)))
            return now.addSecs(-count * entry.seconds);
    }
    return QDateTime::fromString(QString(text).replace(QLatin1Char(' '), QLatin1Char('T')), Qt::ISODate);
}

int show(const QDateTime &since, const QString &with, bool isJson)
{
    QString trouble;
    const QVector<JournalEntry> entries = CMessageJournal::entries(
        Global::journalsFilePath(Global::currentSecrecy()), since, with, 0, &trouble);
    for (const JournalEntry &entry : entries)
        print(isJson ? jsonOf(entry) : lineOf(entry));
    return trouble.isNull() ? ExitDone : answer(ExitTrouble, trouble);
}

} // namespace JournalCommand

int runJournal(const CommandLine &line)
{
    QDateTime since;
    QString with;
    bool isJson = false;
    QStringList words = line.operands;
    while (!words.isEmpty()) {
        const QString word = words.takeFirst();
        if (word == QLatin1String("--json")) {
            isJson = true;
            continue;
        }
        const QString option = word.section(QLatin1Char('='), 0, 0);
        const QString value = word.contains(QLatin1Char('=')) ? word.section(QLatin1Char('='), 1)
                              : words.isEmpty()               ? QString()
                                                              : words.takeFirst();
        if (option == QLatin1String("--since"))
            since = JournalCommand::sinceFromText(value, QDateTime::currentDateTime());
        else if (option == QLatin1String("--with"))
            with = value;
        else
            return answer(ExitUsage, QStringLiteral("Неизвестный параметр: %1").arg(word));
        if (option == QLatin1String("--since") ? !since.isValid() : Global::filterName(with).isEmpty())
            return answer(ExitUsage,
                          QStringLiteral("Значение параметра %1 задано неверно: %2").arg(option, value));
    }
    return JournalCommand::show(since, with, isJson);
}
