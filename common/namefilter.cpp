#include "common/namefilter.h"

#include <array>

namespace {

// For every code unit up to the last Russian letter: what stands for it in a filtered name, or 0.
using Table = std::array<char16_t, 0x452>;

constexpr Table makeTable()
{
    Table table{};
    for (char16_t c = u'0'; c <= u'9'; ++c)
        table[c] = c;
    for (char16_t c = u'a'; c <= u'z'; ++c)
        table[c] = table[c - 0x20u] = c;
    for (char16_t c = u'а'; c <= u'я'; ++c)
        table[c] = table[c - 0x20u] = c;
    table[u'ё'] = table[u'Ё'] = u'ё';
    return table;
}

constexpr Table nameTable = makeTable();

bool isForbidden(QChar c)
{
    switch (c.unicode()) {
    case u'"':
    case u'<':
    case u'>':
    case u':':
    case u'\\':
    case u'/':
    case u'|':
    case u'?':
    case u'*':
        return true;
    default:
        return false;
    }
}

} // namespace

namespace Global {

QString filterName(QString text)
{
    QString filtered(text.size(), Qt::Uninitialized); // dearer: a detached copy of what is mostly kept
    QChar *const begin = filtered.data();
    QChar *out = begin;
    for (const QChar c : qAsConst(text)) {
        const ushort unit = c.unicode();
        const char16_t kept = unit < nameTable.size() ? nameTable[unit] : u'\0';
        *out = QChar(kept);
        out += kept != 0;
    }
    filtered.truncate(static_cast<int>(out - begin));
    return filtered;
}

QString filterNotValidSymbols(QString text)
{
    QChar *const begin = text.data();
    QChar *out = begin;
    for (const QChar *in = begin, *end = begin + text.size(); in != end; ++in) {
        if (isForbidden(*in))
            continue;
        // A pair that arises only by a removal stays: the text is searched once.
        if (*in == QLatin1Char('.') && in + 1 != end && in[1] == QLatin1Char('.'))
            ++in;
        else
            *out++ = *in;
    }
    text.truncate(static_cast<int>(out - begin));
    return text;
}

} // namespace Global
