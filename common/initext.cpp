#include "common/initext.h"

#include <QStringList>

#include <cctype>
#include <cstring>

namespace {

bool isBlank(char ch)
{
    return ch == ' ' || ch == '\t';
}

bool isLineBreak(char ch)
{
    return ch == '\n' || ch == '\r';
}

bool isBlankOrBreak(char ch)
{
    return isBlank(ch) || isLineBreak(ch);
}

int utf8MarkSize(const QByteArray &text)
{
    return text.startsWith("\xef\xbb\xbf") ? 3 : 0;
}

// Hands out the logical lines of an INI text: without comments, continued over escaped line breaks and
// over those within quotes.
class LineReader
{
public:
    LineReader(const QByteArray &iniText, int from) : text(iniText), at(from) {}

    int start = 0;
    int end = 0;     // behind the last character
    int equals = -1; // of the first equals sign outside quotes
    bool isQuoteOpen = false;

    // @return whether there was another line
    bool next()
    {
        skipBlanksAndComments();
        start = at;
        equals = -1;
        isQuoteOpen = false;
        while (at < text.size() && !endsHere())
            ++at;
        end = qMin(at, text.size());
        at = end;
        return end > start;
    }

private:
    void skipBlanksAndComments()
    {
        for (;;) {
            while (at < text.size() && isBlankOrBreak(text.at(at)))
                ++at;
            if (at >= text.size() || text.at(at) != ';')
                return;
            while (at < text.size() && !isLineBreak(text.at(at)))
                ++at;
        }
    }

    bool endsHere()
    {
        switch (text.at(at)) {
        case '"':
            isQuoteOpen = !isQuoteOpen;
            return false;
        case '=':
            if (!isQuoteOpen && equals < 0)
                equals = at;
            return false;
        case '\\':
            skipEscaped();
            return false;
        case ';':
        case '\n':
        case '\r':
            return !isQuoteOpen;
        default:
            return false;
        }
    }

    // Steps onto the character after the backslash; onto the second one of a two-character line break.
    void skipEscaped()
    {
        ++at;
        if (at + 1 < text.size() && isLineBreak(text.at(at)) && isLineBreak(text.at(at + 1)) &&
            text.at(at) != text.at(at + 1))
            ++at;
    }

    const QByteArray &text;
    int at;
};

QString decodedName(const QByteArray &name)
{
    QString result;
    for (int i = 0; i < name.size(); ++i) {
        const char ch = name.at(i);
        if (ch == '%') {
            const int digits = name.mid(i + 1, 1) == "U" ? 4 : 2;
            const int first = i + (digits == 4 ? 2 : 1);
            bool isNumber = false;
            const ushort code = name.mid(first, digits).toUShort(&isNumber, 16);
            if (isNumber && first + digits <= name.size()) {
                result += QChar(code);
                i = first + digits - 1;
                continue;
            }
        }
        result += ch == '\\' ? QLatin1Char('/') : QLatin1Char(ch);
    }
    return result;
}

QByteArray encodedName(const QString &name)
{
    QByteArray result;
    for (const QChar ch : name) {
        const ushort code = ch.unicode();
        const bool isPlain = (code >= 'a' && code <= 'z') || (code >= 'A' && code <= 'Z') ||
                             (code >= '0' && code <= '9') || code == '_' || code == '-' || code == '.';
        if (isPlain)
            result += static_cast<char>(code);
        else if (ch == QLatin1Char('/'))
            result += '\\';
        else if (code <= 0xff)
            result += '%' + QByteArray::number(code, 16).rightJustified(2, '0').toUpper();
        else
            result += "%U" + QByteArray::number(code, 16).rightJustified(4, '0').toUpper();
    }
    return result;
}

// Takes the text of a value apart: quotes, escapes, and the commas of a list.
class ValueReader
{
public:
    ValueReader(const QByteArray &valueText, bool utf8) : text(valueText), isUtf8(utf8) {}

    QVariant read()
    {
        skipBlanks();
        while (at < text.size())
            step();
        finishItem();
        return items.size() > 1 ? QVariant(items) : typed(items.first());
    }

private:
    void step()
    {
        const char ch = text.at(at);
        if (ch == '\\') {
            ++at;
            unescape();
        } else if (ch == '"') {
            ++at;
            wasQuoted = true;
            isQuoteOpen = !isQuoteOpen;
            if (!isQuoteOpen)
                skipBlanks();
        } else if (ch == ',' && !isQuoteOpen) {
            ++at;
            finishItem();
            skipBlanks();
        } else {
            const int first = at++;
            while (at < text.size() && !QByteArray("\\\",").contains(text.at(at)))
                ++at;
            const QByteArray plain = text.mid(first, at - first);
            item += isUtf8 ? QString::fromUtf8(plain) : QString::fromLatin1(plain);
        }
    }

    void unescape()
    {
        static const char codes[] = "abfnrtv\"?'\\";
        static const char meanings[] = "\a\b\f\n\r\t\v\"?'\\";
        if (at >= text.size())
            return;
        const char ch = text.at(at);
        const char *const found = ch == '\0' ? nullptr : strchr(codes, ch);
        if (found != nullptr) {
            ++at;
            item += QLatin1Char(meanings[found - codes]);
        } else if (ch == 'x' && isDigit(at + 1, 16)) {
            ++at;
            appendNumbered(16);
        } else if (isDigit(at, 8)) {
            appendNumbered(8);
        } else {
            ++at; // not an escape: the character counts for nothing, nor does an escaped line break
            if (isLineBreak(ch) && at < text.size() && isLineBreak(text.at(at)) && text.at(at) != ch)
                ++at;
        }
        trimLimit = item.size();
    }

    void appendNumbered(int base)
    {
        uint code = 0;
        for (; isDigit(at, base); ++at)
            code = code * static_cast<uint>(base) + text.mid(at, 1).toUInt(nullptr, base);
        item += QChar(static_cast<ushort>(code));
    }

    bool isDigit(int index, int base) const
    {
        bool isNumber = false;
        const char ch = index < text.size() ? text.at(index) : '\0';
        if (isalnum(static_cast<unsigned char>(ch)) != 0)
            QByteArray(1, ch).toUInt(&isNumber, base);
        return isNumber;
    }

    void skipBlanks()
    {
        while (at < text.size() && isBlank(text.at(at)))
            ++at;
    }

    void finishItem()
    {
        while (!wasQuoted && item.size() > trimLimit &&
               (item.endsWith(QLatin1Char(' ')) || item.endsWith(QLatin1Char('\t'))))
            item.chop(1);
        items += item;
        item.clear();
        wasQuoted = false;
        trimLimit = 0;
    }

    static QVariant typed(const QString &value)
    {
        if (value.startsWith(QLatin1String("@@")))
            return value.mid(1);
        if (!value.startsWith(QLatin1Char('@')) || !value.endsWith(QLatin1Char(')')))
            return value;
        const int open = value.indexOf(QLatin1Char('('));
        const QStringRef kind = value.leftRef(open + 1);
        const QString inside = value.mid(open + 1, value.size() - open - 2);
        if (kind == QLatin1String("@ByteArray("))
            return inside.toLatin1();
        if (kind == QLatin1String("@String("))
            return inside;
        for (const char *stored : {"@Variant(", "@DateTime(", "@Rect(", "@Size(", "@Point(", "@Invalid("}) {
            if (kind == QLatin1String(stored))
                return QVariant();
        }
        return value;
    }

    const QByteArray text;
    const bool isUtf8;
    int at = 0;
    bool isQuoteOpen = false;
    bool wasQuoted = false; // the item, which then keeps its blanks
    int trimLimit = 0;      // blanks up to here were escaped and stay
    QString item;
    QStringList items;
};

QByteArray encodedText(const QString &value)
{
    QByteArray result;
    bool isPlain = !value.startsWith(QLatin1Char('@'));
    bool isDigitHidden = false; // the next hexadecimal digit would lengthen the escape before it
    for (const QChar ch : value) {
        const ushort code = ch.unicode();
        const bool isHex = code < 0x80 && isxdigit(code) != 0;
        const bool isGraphic = code > ' ' && code < 0x7f && code != '"' && code != '\\';
        if ((isGraphic || code == ' ') && !(isHex && isDigitHidden)) {
            isPlain = isPlain && isalnum(code) != 0;
            result += static_cast<char>(code);
            isDigitHidden = false;
        } else {
            isPlain = false;
            isDigitHidden = true;
            result += "\\x" + QByteArray::number(code, 16);
        }
    }
    if (isPlain)
        return result;
    return (value.startsWith(QLatin1Char('@')) ? "\"@" : "\"") + result + '"';
}

QByteArray encodedValue(const QVariant &value)
{
    switch (static_cast<QMetaType::Type>(value.type())) {
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
        return value.toString().toLatin1();
    default:
        return encodedText(value.toString());
    }
}

} // namespace

CIniText::CIniText(const QByteArray &text) : content(text)
{
    parse();
}

bool CIniText::set(const QString &key, const QVariant &value)
{
    const QByteArray entryText = encodedValue(value);
    QList<QByteArray> candidates;
    const auto known = entries.constFind(key);
    if (known != entries.constEnd()) {
        QByteArray replaced = content;
        replaced.replace(known->start, endOfReplacedValue(*known) - known->start, entryText);
        candidates += replaced;
    }
    const int slash = key.indexOf(QLatin1Char('/'));
    const QString group = key.left(slash + 1);
    const QByteArray entry = encodedName(key.mid(slash + 1)) + '=' + entryText + '\n';
    candidates += withEntryAdded(group, entry);
    candidates += withEntryInFront(group, entry); // an unclosed quote further down cannot swallow it there

    for (const QByteArray &candidate : qAsConst(candidates)) {
        const CIniText changed(candidate);
        if (changed.contains(key) && changed.value(key).toString() == value.toString()) {
            *this = changed;
            return true;
        }
    }
    return false;
}

void CIniText::parse()
{
    QString group;
    LineReader line(content, utf8MarkSize(content));
    while (line.next()) {
        if (content.at(line.start) == '[')
            group = parseGroup(line.start, line.end);
        else if (line.equals >= 0)
            parseEntry(group, line.start, line.equals, line.end, line.isQuoteOpen);
        else
            wellFormed = false;
        groupEnds.insert(group, line.end);
    }
}

QString CIniText::parseGroup(int start, int end)
{
    int close = content.indexOf(']', start);
    if (close < 0 || close >= end) {
        wellFormed = false;
        close = end;
    }
    const QByteArray name = content.mid(start + 1, close - start - 1).trimmed();
    if (name.compare("general", Qt::CaseInsensitive) == 0)
        return QString();
    if (name.compare("%general", Qt::CaseInsensitive) == 0)
        return QString::fromLatin1(name.mid(1)) + QLatin1Char('/');
    return decodedName(name) + QLatin1Char('/');
}

void CIniText::parseEntry(const QString &group, int start, int equals, int end, bool isQuoteOpen)
{
    int nameEnd = equals;
    while (nameEnd > start && isBlank(content.at(nameEnd - 1)))
        --nameEnd;
    Entry entry;
    entry.start = equals + 1;
    entry.end = end;
    entry.isQuoteOpen = isQuoteOpen;
    entry.value = ValueReader(content.mid(entry.start, end - entry.start), utf8MarkSize(content) > 0).read();
    const QString key = group + decodedName(content.mid(start, nameEnd - start));
    // An entry outside every group is found under no name that looks as if it were in one.
    if (group.isEmpty() != key.contains(QLatin1Char('/')))
        entries.insert(key, entry);
}

// A value whose quote is never closed has swallowed the rest of the file: only its first line goes, and
// the others come back to life.
int CIniText::endOfReplacedValue(const Entry &entry) const
{
    if (!entry.isQuoteOpen)
        return entry.end;
    int end = entry.start;
    while (end < entry.end && !isLineBreak(content.at(end)))
        ++end;
    return end;
}

QByteArray CIniText::withEntryAdded(const QString &group, const QByteArray &entry) const
{
    QByteArray result = content;
    const auto end = groupEnds.constFind(group);
    if (end != groupEnds.constEnd()) {
        int at = *end; // behind the line, where a comment may follow
        while (at < result.size() && !isLineBreak(result.at(at)))
            ++at;
        if (at >= result.size())
            return result + '\n' + entry;
        const bool isPair = at + 1 < result.size() && result.at(at) == '\r' && result.at(at + 1) == '\n';
        return result.insert(at + (isPair ? 2 : 1), entry);
    }
    if (result.size() > utf8MarkSize(result))
        result += isLineBreak(result.at(result.size() - 1)) ? "\n" : "\n\n";
    return result + groupHeader(group) + entry;
}

QByteArray CIniText::withEntryInFront(const QString &group, const QByteArray &entry) const
{
    // What stood in front of every group belongs to General.
    return QByteArray(content).insert(utf8MarkSize(content), groupHeader(group) + entry + "\n[General]\n");
}

QByteArray CIniText::groupHeader(const QString &group)
{
    if (group.isEmpty())
        return "[General]\n";
    const QByteArray name = encodedName(group.chopped(1));
    return (name.compare("general", Qt::CaseInsensitive) == 0 ? "[%" : "[") + name + "]\n";
}
