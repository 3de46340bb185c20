#include "host/screen/cells.h"

#include "host/text/textwidth.h"
#include "host/text/untrustedtext.h"

#include <QTextBoundaryFinder>

namespace {

constexpr int tabCells = 4;

QString withoutTrailingBlanks(QString text)
{
    while (text.endsWith(QLatin1Char(' ')))
        text.chop(1);
    return text;
}

} // namespace

QString Cells::shown(const QString &text)
{
    return printable(QString(text).replace(QLatin1Char('\t'), QString(tabCells, QLatin1Char(' '))));
}

QStringList Cells::characters(const QString &text)
{
    QStringList result;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    for (int begin = 0, end = 0; (end = finder.toNextBoundary()) >= 0; begin = end)
        result << text.mid(begin, end - begin);
    return result;
}

int Cells::next(const QString &text, int from)
{
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    finder.setPosition(from);
    const int end = finder.toNextBoundary();
    return end < 0 ? text.size() : end;
}

int Cells::previous(const QString &text, int from)
{
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    finder.setPosition(from);
    return qMax(0, finder.toPreviousBoundary());
}

QString Cells::fitted(const QString &text, int cells)
{
    return paddedRight(cutToCells(text, cells), cells);
}

QStringList Cells::wrapped(const QString &line, int cells)
{
    QStringList rows;
    QString row;
    int used = 0;
    int afterBlank = 0; // where the row may be broken
    const QStringList all = characters(line);
    for (const QString &character : all) {
        const bool isBlank = character == QLatin1String(" ");
        const int wide = cellsOf(character);
        bool isSwallowed = false; // the blank at a break is not shown
        while (used + wide > cells && !row.isEmpty()) {
            const int stop = !isBlank && afterBlank > 0 ? afterBlank : row.size();
            rows << withoutTrailingBlanks(row.left(stop));
            row.remove(0, stop);
            used = cellsOf(row);
            afterBlank = 0;
            isSwallowed = isBlank;
        }
        if (isSwallowed)
            continue;
        row += character;
        used += wide;
        if (isBlank && !row.trimmed().isEmpty())
            afterBlank = row.size();
    }
    rows << row;
    return rows;
}
