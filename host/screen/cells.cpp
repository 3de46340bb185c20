#include "host/screen/cells.h"

#include "host/text/untrustedtext.h"

#include <clocale>
#include <cstring>
#include <cwchar>
#include <langinfo.h>

namespace {

constexpr int tabCells = 4;

QString ellipsis()
{
    return QStringLiteral("…");
}

/// The code point at a place, and how many units of UTF-16 it takes.
uint codeAt(const QString &text, int at, int *units)
{
    const bool isPair = text[at].isHighSurrogate() && at + 1 < text.size() && text[at + 1].isLowSurrogate();
    *units = isPair ? 2 : 1;
    return isPair ? QChar::surrogateToUcs4(text[at], text[at + 1]) : text[at].unicode();
}

int widthOf(uint code)
{
    return ::wcwidth(wchar_t(code));
}

/// As many units from the start as fit. @return where they end
int fitting(const QString &text, int cells)
{
    int end = 0;
    int used = 0;
    while (end < text.size()) {
        const int after = Cells::next(text, end);
        used += Cells::width(text.mid(end, after - end));
        if (used > cells)
            break;
        end = after;
    }
    return end;
}

QString withoutTrailingBlanks(QString text)
{
    while (text.endsWith(QLatin1Char(' ')))
        text.chop(1);
    return text;
}

} // namespace

bool Cells::useWideCharacters()
{
    std::setlocale(LC_CTYPE, "");
    if (std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0)
        return true;
    return std::setlocale(LC_CTYPE, "C.UTF-8") || std::setlocale(LC_CTYPE, "en_US.UTF-8");
}

QString Cells::shown(const QString &text)
{
    const QString safe =
        printable(QString(text).replace(QLatin1Char('\t'), QString(tabCells, QLatin1Char(' '))));
    QString result;
    result.reserve(safe.size());
    int units = 0;
    for (int at = 0; at < safe.size(); at += units) {
        if (widthOf(codeAt(safe, at, &units)) < 0)
            result += QChar(QChar::ReplacementCharacter);
        else
            result += safe.midRef(at, units);
    }
    return result;
}

int Cells::width(const QString &text)
{
    int sum = 0;
    int units = 0;
    for (int at = 0; at < text.size(); at += units)
        sum += qMax(0, widthOf(codeAt(text, at, &units)));
    return sum;
}

int Cells::next(const QString &text, int from)
{
    int units = 0;
    if (from >= text.size())
        return text.size();
    codeAt(text, from, &units);
    int at = from + units;
    while (at < text.size() && text[at] != QLatin1Char('\n') && widthOf(codeAt(text, at, &units)) == 0)
        at += units;
    return at;
}

int Cells::previous(const QString &text, int from)
{
    int at = 0;
    int begin = 0;
    while (at < from) {
        begin = at;
        at = next(text, at);
    }
    return begin;
}

QString Cells::cut(const QString &text, int cells)
{
    if (width(text) <= cells)
        return text;
    return cells < 1 ? QString() : text.left(fitting(text, cells - 1)) + ellipsis();
}

QString Cells::cutInMiddle(const QString &text, int cells)
{
    if (width(text) <= cells || cells < 3)
        return cut(text, cells);
    const int tailCells = (cells - 1) / 2;
    int tail = text.size();
    while (tail > 0 && width(text.mid(previous(text, tail))) <= tailCells)
        tail = previous(text, tail);
    return text.left(fitting(text, cells - 1 - tailCells)) + ellipsis() + text.mid(tail);
}

QString Cells::padded(const QString &text, int cells)
{
    const QString fit = cut(text, cells);
    return fit + QString(qMax(0, cells - width(fit)), QLatin1Char(' '));
}

QStringList Cells::wrapped(const QString &line, int cells)
{
    QStringList rows;
    int start = 0;
    int used = 0;
    int afterBlank = 0; // where the row may be broken
    for (int at = 0; at < line.size();) {
        const int end = next(line, at);
        const int wide = width(line.mid(at, end - at));
        const bool isBlank = line[at] == QLatin1Char(' ');
        if (used + wide <= cells || at == start) {
            used += wide;
            at = end;
            afterBlank = isBlank ? at : afterBlank;
            continue;
        }
        const int stop = !isBlank && afterBlank > start ? afterBlank : at;
        rows << withoutTrailingBlanks(line.mid(start, stop - start));
        start = isBlank ? end : stop; // the blank at the break is not shown
        at = qMax(at, start);
        used = width(line.mid(start, at - start));
    }
    rows << line.mid(start);
    return rows;
}
