#include "host/commands/newslines.h"

#include "common/global.h"
#include "host/console/cconsole.h"
#include "host/console/jsonlines.h"
#include "host/console/printing.h"
#include "host/text/untrustedtext.h"

namespace {

constexpr int mostTextLines = 200; // of a text that has arrived; all of it lies in the inbox

/// "текст", "файл 'a.pdf'", "каталог 'b'"
QString what(const MessageNews &news)
{
    if (news.kind == OfferFrame::Text)
        return QStringLiteral("текст");
    return (news.kind == OfferFrame::Tree ? QStringLiteral("каталог '%1'") : QStringLiteral("файл '%1'"))
        .arg(news.row.name);
}

QString digestOf(const JournalEntry &row, bool isVerbose)
{
    return isVerbose ? QStringLiteral(", SHA-256 %1").arg(QString::fromLatin1(row.digest.toHex()))
                     : QString();
}

/// The beginning of a text ends where it was cut, perhaps within a character.
QStringList textLines(const MessageNews &news)
{
    if (news.kind != OfferFrame::Text || news.row.kind != JournalRow::Received)
        return {};
    QString text = news.text;
    const bool isCut = text.toUtf8().size() < news.row.size || text.endsWith(QChar::ReplacementCharacter);
    while (isCut && text.endsWith(QChar::ReplacementCharacter))
        text.chop(1);
    QStringList lines = printableLines(text, mostTextLines);
    if (isCut)
        lines << QStringLiteral("... целиком: %1/text.txt").arg(news.directory);
    return lines;
}

void tellReceived(CConsole &console, const MessageNews &news, bool isVerbose)
{
    const JournalEntry &row = news.row;
    const QString place =
        news.kind == OfferFrame::Text && !isVerbose ? QString() : QStringLiteral(", %1").arg(news.directory);
    console.record(QStringLiteral("принято"), row.abonent,
                   QStringLiteral("%1, %2%3%4")
                       .arg(what(news), Global::sizeString(row.size), digestOf(row, isVerbose), place),
                   CConsole::Results, textLines(news));
}

void tellBrokenOff(CConsole &console, const MessageNews &news)
{
    const JournalEntry &row = news.row;
    const QString text =
        news.done < 0
            ? row.text
            : QStringLiteral("%1, принято %2 из %3. %4. Прием продолжится с этого места")
                  .arg(what(news), Global::sizeString(news.done), Global::sizeString(row.size), row.text);
    console.record(QStringLiteral("прервано"), row.abonent, text, CConsole::Errors);
}

} // namespace

QJsonObject jsonOf(const JournalEntry &entry)
{
    QJsonObject object = jsonEvent(journalRowName(entry.kind));
    object.insert(QStringLiteral("time"),
                  jsonTime(entry.date.isValid() ? entry.date : QDateTime::currentDateTime()));
    object.insert(QStringLiteral("abonent"), entry.abonent);
    object.insert(QStringLiteral("name"), entry.name);
    object.insert(QStringLiteral("sha256"), QString::fromLatin1(entry.digest.toHex()));
    object.insert(QStringLiteral("message"), entry.message);
    object.insert(QStringLiteral("text"), entry.text);
    if (entry.size >= 0)
        object.insert(QStringLiteral("size"), entry.size);
    return object;
}

void tellNews(CConsole &console, const MessageNews &news, bool isVerbose)
{
    if (outputStyle() == OutputStyle::Json) {
        static constexpr const char *kinds[] = {"", "text", "file", "tree"};
        QJsonObject object = jsonOf(news.row);
        if (!news.row.message.isEmpty()) {
            object.insert(QStringLiteral("kind"), QLatin1String(kinds[news.kind]));
            object.insert(QStringLiteral("direction"), QLatin1String(news.isIncoming ? "in" : "out"));
        }
        if (!news.directory.isEmpty())
            object.insert(QStringLiteral("directory"), news.directory);
        if (news.done >= 0)
            object.insert(QStringLiteral("done"), news.done);
        return console.json(object);
    }
    const JournalEntry &row = news.row;
    switch (row.kind) {
    case JournalRow::Received:
        return tellReceived(console, news, isVerbose);
    case JournalRow::Sent:
        return console.record(QStringLiteral("передано"), row.abonent,
                              QStringLiteral("%1, %2%3")
                                  .arg(what(news), Global::sizeString(row.size), digestOf(row, isVerbose)));
    case JournalRow::BrokenOff:
        return tellBrokenOff(console, news);
    default:
        const QString about = row.message.isEmpty()
                                  ? QString()
                                  : QStringLiteral("%1, %2. ").arg(what(news), Global::sizeString(row.size));
        return console.record(QStringLiteral("отказ"), row.abonent, about + row.text, CConsole::Errors);
    }
}
