#include "host/screen/screenpicture.h"

#include "host/screen/cells.h"
#include "host/screen/cscreenstate.h"
#include "host/screen/messagerows.h"
#include "host/screen/screenhelp.h"
#include "host/text/textwidth.h"

#include <algorithm>
#include <limits>

namespace {

using Rows = std::vector<ScreenRow>;

constexpr int leastWidth = 20;
constexpr int leastHeight = 5;
constexpr int twoPanesWidth = 64;
constexpr int leastListWidth = 18; // of contacts
constexpr int mostListWidth = 28;
constexpr int mostOwnName = 16;
constexpr int rowsWithLine = 12; // a lower screen has no line above the text
constexpr int mostRemarkRows = 4;
constexpr int rowsAround = 2; // title, keys

/// Everything that the parts of the picture need to know.
struct Around
{
    const CScreenState &state;
    const ScreenContents &contents;
    int width;
    int height;
};

ScreenRow oneSpan(const QString &text, ScreenStyle style = ScreenStyle::Plain)
{
    return {{text, style}};
}

QString viewName(CScreenState::View view)
{
    switch (view) {
    case CScreenState::Transfers:
        return QStringLiteral("Передачи");
    case CScreenState::Journal:
        return QStringLiteral("Журнал");
    case CScreenState::Help:
        return QStringLiteral("Клавиши");
    default:
        return QStringLiteral("Разговор");
    }
}

ScreenRow titleRow(const Around &around)
{
    int unseen = 0;
    for (const ScreenContact &contact : around.contents.contacts)
        unseen += contact.unseen;
    const QString right =
        around.contents.hasResident ? QStringLiteral(" прием идет ") : QStringLiteral(" прием не запущен ");
    QString left = QStringLiteral(" %1 | %2")
                       .arg(shortenedInMiddle(Cells::shown(around.contents.ownName), mostOwnName),
                            viewName(around.state.view()));
    if (unseen > 0)
        left += QStringLiteral(" | новых %1").arg(unseen);
    const auto &transfers = around.contents.transfers;
    const auto onTheirWay =
        std::count_if(transfers.begin(), transfers.end(),
                      [](const ScreenTransfer &transfer) { return transfer.state != ScreenMessage::Event; });
    if (onTheirWay > 0)
        left += QStringLiteral(" | в пути %1").arg(onTheirWay);
    return oneSpan(Cells::fitted(left, around.width - cellsOf(right)) + right, ScreenStyle::Title);
}

// Contacts -------------------------------------------------------------------------------------------

QString badge(const ScreenContact &contact)
{
    if (contact.isBlocked)
        return QStringLiteral("блок");
    if (contact.hasOtherKey)
        return QStringLiteral("ключ!");
    if (contact.unseen > 0)
        return QStringLiteral("%1 нов").arg(contact.unseen);
    return contact.waiting > 0 ? QStringLiteral("ждет %1").arg(contact.waiting) : QString();
}

ScreenRow contactRow(const ScreenContact &contact, int width, bool isChosen, bool isFocused)
{
    const QString mark = badge(contact);
    const int room = width - 2 - (mark.isEmpty() ? 0 : cellsOf(mark) + 1);
    const QString name = shortenedInMiddle(Cells::shown(contact.name), room);
    const ScreenStyle style = isChosen && isFocused ? ScreenStyle::Chosen
                              : contact.unseen > 0  ? ScreenStyle::Strong
                                                    : ScreenStyle::Plain;
    const QString text = QLatin1String(isChosen ? "> " : "  ") + Cells::fitted(name, room) +
                         (mark.isEmpty() ? QString() : QLatin1Char(' ') + mark);
    return oneSpan(text, style);
}

Rows contactList(const Around &around, int width, int height)
{
    const auto &contacts = around.contents.contacts;
    if (contacts.empty())
        return {oneSpan(cutToCells(QStringLiteral("Контактов нет: F8"), width))};
    const auto chosen =
        std::find_if(contacts.begin(), contacts.end(), [&around](const ScreenContact &contact) {
            return contact.key == around.state.contact();
        });
    const int index = int(chosen - contacts.begin());
    const int first = qBound(0, index - height / 2, qMax(0, int(contacts.size()) - height));
    Rows rows;
    for (int i = first; i < int(contacts.size()) && i < first + height; ++i)
        rows.push_back(contactRow(contacts[std::size_t(i)], width, i == index,
                                  around.state.focus() == CScreenState::OnContacts));
    return rows;
}

// Rows that scroll -----------------------------------------------------------------------------------

/// Rows are asked for from the last element backwards, only as many as are seen.
class FromEnd
{
public:
    FromEnd(int scroll, int height) : scrolled(scroll), page(height) {}

    bool wantsMore() const { return int(reversed.size()) <= scrolled + page; }

    void addBefore(const Rows &rows)
    {
        for (auto row = rows.rbegin(); row != rows.rend(); ++row)
            reversed.push_back(*row);
    }

    /// @param mostScroll how far one can go; at least as far as is known
    Rows shownRows(int *mostScroll) const
    {
        const int beyond = qMax(0, int(reversed.size()) - page);
        *mostScroll = wantsMore() ? beyond : std::numeric_limits<int>::max();
        const int from = qMin(scrolled, beyond);
        const int count = qMin(page, int(reversed.size()) - from);
        Rows rows(reversed.begin() + from, reversed.begin() + from + count);
        std::reverse(rows.begin(), rows.end());
        rows.insert(rows.begin(), std::size_t(page - count), ScreenRow());
        return rows;
    }

private:
    const int scrolled;
    const int page;
    Rows reversed;
};

ScreenRow dayRow(const QDate &day, int width)
{
    const QString text = QStringLiteral("-- %1 --").arg(day.toString(QStringLiteral("dd.MM.yyyy")));
    return oneSpan(cutToCells(text, width), ScreenStyle::Faint);
}

QString contactWords(const ScreenContact &contact)
{
    if (contact.isBlocked)
        return QStringLiteral("заблокирован");
    if (contact.hasOtherKey)
        return QStringLiteral("показан другой ключ: сверьте слова, затем abonent contact trust");
    if (!contact.isKnown)
        return QStringLiteral("нет в контактах");
    const QString whose = contact.isInvited ? QStringLiteral("свой") : QStringLiteral("незнакомый");
    return contact.address.isEmpty()
               ? whose + QStringLiteral(", адрес не известен")
               : QStringLiteral("%1, %2:%3")
                     .arg(whose, Cells::shown(contact.address), QString::number(contact.port));
}

Rows conversation(const Around &around, int width, int height, int *mostScroll)
{
    const ScreenContact *contact = around.contents.contact(around.state.contact());
    if (!contact)
        return Rows(std::size_t(height));
    std::vector<const ScreenMessage *> messages;
    for (const ScreenMessage &message : around.contents.messages) {
        if (message.key == contact->key)
            messages.push_back(&message);
    }
    FromEnd rows(around.state.scroll(), height - 1);
    for (std::size_t i = messages.size(); i > 0 && rows.wantsMore(); --i) {
        const QDate day = messages[i - 1]->date.toLocalTime().date();
        rows.addBefore(messageRows(*messages[i - 1], width));
        if (i == 1 || messages[i - 2]->date.toLocalTime().date() != day)
            rows.addBefore({dayRow(day, width)});
    }
    Rows shown = rows.shownRows(mostScroll);
    const QString name = Cells::shown(contact->name);
    const ScreenStyle style =
        contact->hasOtherKey || contact->isBlocked ? ScreenStyle::Alert : ScreenStyle::Faint;
    const int nameCells = qMin(cellsOf(name), width / 2);
    const QString words = cutToCells(contactWords(*contact), width - nameCells - 2);
    shown.insert(shown.begin(), {{shortenedInMiddle(name, nameCells), ScreenStyle::Strong},
                                 {QStringLiteral("  ") + words, style}});
    return shown;
}

Rows journal(const Around &around, int height, int *mostScroll)
{
    FromEnd rows(around.state.scroll(), height);
    const QVector<JournalEntry> &entries = around.contents.journal;
    for (int i = entries.size(); i > 0 && rows.wantsMore(); --i)
        rows.addBefore(journalRows(entries[i - 1], around.width));
    return rows.shownRows(mostScroll);
}

Rows transfers(const Around &around, int height)
{
    const auto &list = around.contents.transfers;
    if (list.empty())
        return {oneSpan(cutToCells(QStringLiteral("Все передано, ничего не приходит"), around.width))};
    Rows rows;
    int chosenEnd = 0;
    for (const ScreenTransfer &transfer : list) {
        const bool isChosen = transfer.number == around.state.transfer();
        const Rows some = transferRows(transfer, around.width, isChosen);
        rows.insert(rows.end(), some.begin(), some.end());
        chosenEnd = isChosen ? int(rows.size()) : chosenEnd;
    }
    const int first = qBound(0, chosenEnd - height, qMax(0, int(rows.size()) - height));
    return Rows(rows.begin() + first, rows.end());
}

Rows help(const Around &around, int height, int *mostScroll)
{
    Rows rows;
    const QStringList lines = helpLines(around.width);
    for (const QString &line : lines)
        rows.push_back(oneSpan(line));
    *mostScroll = qMax(0, int(rows.size()) - height);
    return Rows(rows.begin() + qMin(around.state.scroll(), *mostScroll), rows.end());
}

// Below ----------------------------------------------------------------------------------------------

QString prompt(const CScreenState &state)
{
    switch (state.question()) {
    case CScreenState::WhichFile:
        return QStringLiteral("Файл: ");
    case CScreenState::WhichContact:
        return QStringLiteral("Имя и адрес: ");
    default:
        return QStringLiteral("> ");
    }
}

/// What is being written, as much of it as there is room for around the cursor.
Rows writing(const Around &around, ScreenPicture *picture)
{
    const QString start = prompt(around.state);
    const int startCells = cellsOf(start);
    const CEditor::Layout layout = around.state.editor().layout(qMax(2, around.width - startCells));
    const int count = qBound(1, layout.rows.size(), qMax(1, around.height / 3));
    const int first = qBound(0, layout.cursorRow - count + 1, layout.rows.size() - count);
    const bool isActive =
        around.state.question() != CScreenState::NoQuestion || around.state.focus() == CScreenState::OnText;
    Rows rows;
    for (int i = 0; i < count; ++i) {
        const QString left = i == 0 ? start : QString(startCells, QLatin1Char(' '));
        rows.push_back({{left, isActive ? ScreenStyle::Strong : ScreenStyle::Faint},
                        {layout.rows[first + i], isActive ? ScreenStyle::Plain : ScreenStyle::Faint}});
    }
    if (isActive) {
        picture->cursorRow = layout.cursorRow - first; // among these rows
        picture->cursorCell = startCells + layout.cursorCell;
    }
    return rows;
}

/// What there is to say; one row at least.
Rows remark(const Around &around, int mostRows)
{
    const QString trouble = around.contents.trouble;
    const QString &said = around.state.message();
    ScreenStyle style = said.isEmpty() ? ScreenStyle::Alert : ScreenStyle::Strong;
    QString text = QString(said.isEmpty() ? trouble : said).replace(QLatin1Char('\n'), QLatin1Char(' '));
    if (text.isEmpty() && !around.contents.hasResident)
        text = QStringLiteral("Не принимаем и не передаем. F5 - запустить прием в фоне");
    Rows rows;
    const QStringList lines =
        Cells::wrapped(Cells::shown(text), around.width).mid(0, qBound(1, mostRows, mostRemarkRows));
    for (const QString &line : lines)
        rows.push_back(oneSpan(line, style));
    return rows;
}

ScreenRow keyRow(const Around &around)
{
    ScreenRow row;
    int used = 0;
    for (const KeyHint &hint : keyHints(around.state)) {
        const QString key = QString::fromUtf8(hint.key);
        const QString word = QLatin1Char(' ') + QString::fromUtf8(hint.word) + QStringLiteral("  ");
        used += cellsOf(key + word);
        if (used - 2 > around.width)
            break;
        row.push_back({key, ScreenStyle::Chosen});
        row.push_back({word.left(qMax(0, word.size() - qMax(0, used - around.width))), ScreenStyle::Plain});
    }
    return row;
}

/// Names to choose from, as many as there is room for.
Rows candidates(const Around &around, int mostRows)
{
    Rows rows;
    if (around.state.candidates().isEmpty())
        return rows;
    const QString names = around.state.candidates().join(QStringLiteral("  "));
    const QStringList lines = Cells::wrapped(Cells::shown(names), around.width);
    for (int i = 0; i < qMin(lines.size(), mostRows); ++i) {
        const bool isCut = i == mostRows - 1 && lines.size() > mostRows;
        rows.push_back(
            oneSpan(isCut ? cutToCells(lines[i], around.width - 1) + QStringLiteral("…") : lines[i]));
    }
    return rows;
}

/// Puts rows over the last ones of what is above.
void overlay(const Rows &rows, Rows *above)
{
    const std::size_t count = std::min(rows.size(), above->size());
    std::copy(rows.end() - std::ptrdiff_t(count), rows.end(), above->end() - std::ptrdiff_t(count));
}

Rows beside(const Rows &left, const Rows &right, int leftWidth, int height)
{
    Rows rows;
    for (std::size_t i = 0; i < std::size_t(height); ++i) {
        ScreenRow row = i < left.size() ? left[i] : ScreenRow();
        row.push_back({QString(leftWidth - cellsOf(row), QLatin1Char(' ')), ScreenStyle::Plain});
        row.push_back({QStringLiteral("│ "), ScreenStyle::Faint});
        if (i < right.size())
            row.insert(row.end(), right[i].begin(), right[i].end());
        rows.push_back(row);
    }
    return rows;
}

Rows talk(const Around &around, ScreenPicture *picture)
{
    if (around.width >= twoPanesWidth) {
        const int left = qBound(leastListWidth, around.width / 4, mostListWidth);
        const int right = around.width - left - 2;
        return beside(contactList(around, left, picture->page),
                      conversation(around, right, picture->page, &picture->mostScroll), left, picture->page);
    }
    if (around.state.focus() == CScreenState::OnContacts)
        return contactList(around, around.width, picture->page);
    return conversation(around, around.width, picture->page, &picture->mostScroll);
}

Rows body(const Around &around, ScreenPicture *picture)
{
    switch (around.state.view()) {
    case CScreenState::Transfers:
        return transfers(around, picture->page);
    case CScreenState::Journal:
        return journal(around, picture->page, &picture->mostScroll);
    case CScreenState::Help:
        return help(around, picture->page, &picture->mostScroll);
    default:
        return talk(around, picture);
    }
}

} // namespace

ScreenPicture drawScreen(const CScreenState &state, const ScreenContents &contents, int width, int height)
{
    const Around around{state, contents, width, height};
    ScreenPicture picture;
    if (width < leastWidth || height < leastHeight) {
        picture.rows.push_back(oneSpan(cutToCells(QStringLiteral("Мало места"), width)));
        return picture;
    }
    Rows below;
    if (state.view() == CScreenState::Talk) {
        below = writing(around, &picture);
        if (height >= rowsWithLine) {
            below.insert(below.begin(), oneSpan(QString(width, QChar(0x2500)), ScreenStyle::Faint));
            picture.cursorRow += picture.cursorRow >= 0;
        }
    }
    const Rows said = remark(around, height - rowsAround - int(below.size()) - 1);
    below.insert(below.end(), said.begin(), said.end());
    picture.page = qMax(1, height - rowsAround - int(below.size()));
    Rows above = body(around, &picture);
    above.resize(std::size_t(picture.page));
    overlay(candidates(around, picture.page / 2), &above);

    picture.rows.push_back(titleRow(around));
    picture.rows.insert(picture.rows.end(), above.begin(), above.end());
    if (picture.cursorRow >= 0)
        picture.cursorRow += int(picture.rows.size());
    picture.rows.insert(picture.rows.end(), below.begin(), below.end());
    picture.rows.push_back(keyRow(around));
    return picture;
}
