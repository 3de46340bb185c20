#include "host/screen/messagerows.h"

#include "common/textformat.h"
#include "host/screen/cells.h"
#include "host/text/textwidth.h"

namespace {

constexpr int indentCells = 6; // as wide as the time
constexpr int mostNameCells = 24;

QString blanks(int count)
{
    return QString(count, QLatin1Char(' '));
}

/// The rows of a text, the first @a headSize characters in a style of their own.
std::vector<ScreenRow> styledRows(const QString &text, int headSize, ScreenStyle headStyle, int width)
{
    std::vector<ScreenRow> rows;
    const QStringList lines = hanging(text, width, indentCells);
    for (const QString &line : lines) {
        const int head = rows.empty() ? qMin(headSize, line.size()) : 0;
        rows.push_back({{line.left(head), headStyle}, {line.mid(head), ScreenStyle::Plain}});
    }
    return rows;
}

/// Behind the last row where there is room, else in rows of its own.
void addState(std::vector<ScreenRow> *rows, const QString &text, ScreenStyle style, int width)
{
    if (cellsOf(rows->back()) + 1 + cellsOf(text) <= width) {
        rows->back().push_back({QLatin1Char(' ') + text, style});
        return;
    }
    const QStringList lines = Cells::wrapped(text, width - indentCells);
    for (const QString &line : lines)
        rows->push_back({{blanks(indentCells) + line, style}});
}

QString head(const ScreenMessage &message)
{
    const QString time = message.date.toLocalTime().toString(QStringLiteral("HH:mm "));
    if (message.state == ScreenMessage::Event)
        return time + QStringLiteral("* ");
    if (message.isOutgoing())
        return time + QStringLiteral("Вы: ");
    return time + shortenedInMiddle(Cells::shown(message.abonent), mostNameCells) +
           (message.isNew ? QStringLiteral(" (новое): ") : QStringLiteral(": "));
}

/// What the message says, line by line.
QStringList linesOf(const ScreenMessage &message)
{
    const QString size = Global::sizeString(message.size);
    if (message.kind != OfferFrame::Text)
        return {
            QStringLiteral("%1 %2, %3")
                .arg(message.kind == OfferFrame::Tree ? QStringLiteral("каталог") : QStringLiteral("файл"),
                     Cells::shown(message.name), size)};
    if (message.text.isNull())
        return {QStringLiteral("(текст, %1, здесь его больше нет)").arg(size)};
    QStringList lines;
    const QStringList written = message.text.split(QLatin1Char('\n'));
    for (const QString &line : written)
        lines << Cells::shown(line);
    while (lines.size() > 1 && lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

ScreenStyle styleOf(ScreenMessage::State state)
{
    return state == ScreenMessage::Refused ? ScreenStyle::Alert : ScreenStyle::Faint;
}

QString stateWord(const ScreenTransfer &transfer)
{
    switch (transfer.state) {
    case ScreenMessage::Received:
        return QStringLiteral("приходит");
    case ScreenMessage::Event:
        return QStringLiteral("прервано");
    case ScreenMessage::Sending:
        return QStringLiteral("передается");
    case ScreenMessage::Refused:
        return QStringLiteral("не принято");
    default:
        return QStringLiteral("ждет");
    }
}

} // namespace

int cellsOf(const ScreenRow &row)
{
    int sum = 0;
    for (const ScreenSpan &span : row)
        sum += cellsOf(span.text);
    return sum;
}

QStringList hanging(const QString &text, int width, int indent)
{
    const QString first = Cells::wrapped(text, width).constFirst();
    QString rest = text.mid(first.size());
    while (rest.startsWith(QLatin1Char(' ')))
        rest.remove(0, 1);
    QStringList rows{first};
    if (rest.isEmpty())
        return rows;
    const QStringList others = Cells::wrapped(rest, qMax(1, width - indent));
    for (const QString &row : others)
        rows << blanks(indent) + row;
    return rows;
}

QString stateText(const ScreenMessage &message)
{
    const QString reason = Cells::shown(message.reason);
    switch (message.state) {
    case ScreenMessage::Waiting:
        return reason.isEmpty() ? QStringLiteral("ждет") : QStringLiteral("ждет: %1").arg(reason);
    case ScreenMessage::Sending:
        return QStringLiteral("передается %1 %").arg(message.percent);
    case ScreenMessage::Delivered:
        return QStringLiteral("доставлено");
    case ScreenMessage::Refused:
        return QStringLiteral("не принято: %1").arg(reason);
    case ScreenMessage::Withdrawn:
        return QStringLiteral("отозвано");
    default:
        return QString();
    }
}

std::vector<ScreenRow> messageRows(const ScreenMessage &message, int width)
{
    const QStringList lines = linesOf(message);
    const QString start = head(message);
    const ScreenStyle style = message.isOutgoing() ? ScreenStyle::Own
                              : message.isNew      ? ScreenStyle::Strong
                                                   : ScreenStyle::Plain;
    const bool isOneLine = lines.size() == 1;
    std::vector<ScreenRow> rows =
        styledRows(isOneLine ? start + lines.first() : start.trimmed(), start.size(), style, width);
    for (int i = 0; i < lines.size() && !isOneLine; ++i) {
        const QStringList wrapped = Cells::wrapped(lines[i], width - indentCells);
        for (const QString &row : wrapped)
            rows.push_back({{blanks(indentCells) + row, ScreenStyle::Plain}});
    }
    const QString state = stateText(message);
    if (!state.isEmpty())
        addState(&rows, QStringLiteral("[%1]").arg(state), styleOf(message.state), width);
    if (message.kind != OfferFrame::Text && !message.place.isEmpty()) {
        const QStringList place = Cells::wrapped(Cells::shown(message.place), width - indentCells);
        for (const QString &row : place)
            rows.push_back({{blanks(indentCells) + row, ScreenStyle::Faint}});
    }
    return rows;
}

std::vector<ScreenRow> transferRows(const ScreenTransfer &transfer, int width, bool isChosen)
{
    const ScreenStyle style = isChosen ? ScreenStyle::Chosen : ScreenStyle::Plain;
    const QString start = QStringLiteral("%1%2 % %3 ")
                              .arg(QLatin1String(isChosen ? ">" : " "),
                                   QString::number(transfer.percent).rightJustified(3), stateWord(transfer));
    const QString size = QStringLiteral(", ") + Global::sizeString(transfer.size);
    const QString abonent =
        transfer.abonent.isEmpty() ? QString() : Cells::shown(transfer.abonent) + QStringLiteral(": ");
    const int room = width - cellsOf(start) - cellsOf(size);
    const QString name = shortenedInMiddle(abonent + Cells::shown(transfer.title), qMax(1, room));
    std::vector<ScreenRow> rows{{{Cells::fitted(start + name + size, width), style}}};
    if (transfer.reason.isEmpty())
        return rows;
    const QStringList reason = Cells::wrapped(Cells::shown(transfer.reason), width - indentCells);
    for (const QString &row : reason)
        rows.push_back({{blanks(indentCells) + row, ScreenStyle::Faint}});
    return rows;
}

std::vector<ScreenRow> journalRows(const JournalEntry &entry, int width)
{
    const QString time = entry.date.toLocalTime().toString(QStringLiteral("dd.MM HH:mm:ss "));
    const bool isBad = entry.kind == JournalRow::Refused || entry.kind == JournalRow::BrokenOff ||
                       entry.kind == JournalRow::KeyChanged;
    return styledRows(time + Cells::shown(journalLine(entry)), time.size(),
                      isBad ? ScreenStyle::Alert : ScreenStyle::Faint, width);
}
