#include "common/initext.h"

#include "common/inivalue.h"

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

} // namespace

CIniText::CIniText(const QByteArray &text) : content(text)
{
    parse();
}

bool CIniText::set(const QString &key, const QStringList &items)
{
    const QByteArray entryText = IniValue::text(items);
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
        if (changed.items(key) == items) {
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
    entry.items = IniValue::parsed(content.mid(entry.start, end - entry.start), utf8MarkSize(content) > 0);
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
