#include "host/screen/ceditor.h"

#include "host/screen/cells.h"

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
    const auto startRow = [&] {
        result.rows << QString();
        used = 0;
    };
    for (int at = 0;;) {
        if (at == cursor) {
            if (used >= cells)
                startRow();
            result.cursorRow = result.rows.size() - 1;
            result.cursorCell = used;
        }
        if (at >= written.size())
            return result;
        const int end = Cells::next(written, at);
        if (isLineFeed(written[at])) {
            startRow();
        } else {
            const QString piece = Cells::shown(written.mid(at, end - at));
            const int wide = Cells::width(piece);
            if (used + wide > cells)
                startRow();
            result.rows.last() += Cells::cut(piece, cells);
            used = qMin(used + wide, cells);
        }
        at = end;
    }
}
