#include "host/screen/ceditor.h"

#include "host/screen/cells.h"
#include "host/text/textwidth.h"

namespace {

bool isLineFeed(QChar character)
{
    return character == QLatin1Char('\n');
}

} // namespace

void CEditor::setText(const QString &text)
{
    written = text;
    cursor = written.size();
}

void CEditor::insert(const QString &text)
{
    QString kept;
    for (const QChar character : text) {
        if (character.category() != QChar::Other_Control || isLineFeed(character) ||
            character == QLatin1Char('\t'))
            kept += character;
    }
    written.insert(cursor, kept);
    cursor += kept.size();
}

void CEditor::left()
{
    cursor = Cells::previous(written, cursor);
}

void CEditor::right()
{
    cursor = Cells::next(written, cursor);
}

/// How many characters stand before the cursor in its line.
int CEditor::column() const
{
    const int start = cursor > 0 ? written.lastIndexOf(QLatin1Char('\n'), cursor - 1) + 1 : 0;
    return Cells::characters(written.mid(start, cursor - start)).size();
}

void CEditor::moveTo(int lineStart, int characters)
{
    cursor = lineStart;
    for (; characters > 0 && cursor < written.size() && !isLineFeed(written[cursor]); --characters)
        right();
}

bool CEditor::up()
{
    const int characters = column();
    const int before = cursor;
    toStart();
    if (cursor == 0) {
        cursor = before;
        return false;
    }
    left(); // to the end of the line above
    toStart();
    moveTo(cursor, characters);
    return true;
}

bool CEditor::down()
{
    const int end = written.indexOf(QLatin1Char('\n'), cursor);
    if (end < 0)
        return false;
    moveTo(end + 1, column());
    return true;
}

void CEditor::toStart()
{
    while (cursor > 0 && !isLineFeed(written[cursor - 1]))
        --cursor;
}

void CEditor::toEnd()
{
    while (cursor < written.size() && !isLineFeed(written[cursor]))
        ++cursor;
}

void CEditor::deleteBefore()
{
    const int begin = Cells::previous(written, cursor);
    written.remove(begin, cursor - begin);
    cursor = begin;
}

void CEditor::deleteAfter()
{
    written.remove(cursor, Cells::next(written, cursor) - cursor);
}

void CEditor::deleteWord()
{
    int begin = cursor;
    while (begin > 0 && written[begin - 1].isSpace())
        --begin;
    while (begin > 0 && !written[begin - 1].isSpace())
        --begin;
    written.remove(begin, cursor - begin);
    cursor = begin;
}

CEditor::Layout CEditor::layout(int cells) const
{
    Layout result;
    result.rows << QString();
    int used = 0;
    int at = 0;
    const auto startRow = [&] {
        result.rows << QString();
        used = 0;
    };
    const auto noteCursor = [&] {
        if (at != cursor)
            return;
        if (used >= cells)
            startRow();
        result.cursorRow = result.rows.size() - 1;
        result.cursorCell = used;
    };
    const QStringList characters = Cells::characters(written);
    for (const QString &character : characters) {
        noteCursor();
        at += character.size();
        if (isLineFeed(character[0])) {
            startRow();
            continue;
        }
        const QString piece = cutToCells(Cells::shown(character), cells);
        if (used + cellsOf(piece) > cells)
            startRow();
        result.rows.last() += piece;
        used += cellsOf(piece);
    }
    noteCursor();
    return result;
}
