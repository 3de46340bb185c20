#include "common/inivalue.h"

#include <QByteArrayList>
#include <QDataStream>

#include <cctype>
#include <cstring>

namespace {

const char controls[] = "abfnrtv";
const char controlMeanings[] = "\a\b\f\n\r\t\v";

bool isBlank(char ch)
{
    return ch == ' ' || ch == '\t';
}

bool isLineBreak(char ch)
{
    return ch == '\n' || ch == '\r';
}

// All of the bytes, also behind a zero.
QString latin1(const QByteArray &bytes)
{
    return QString::fromLatin1(bytes.constData(), bytes.size());
}

// Takes the text of a value apart: quotes, escapes, and the commas of a list.
class ValueReader
{
public:
    ValueReader(const QByteArray &valueText, bool utf8) : text(valueText), isUtf8(utf8) {}

    QStringList read()
    {
        skipBlanks();
        while (at < text.size())
            step();
        finishItem();
        return items;
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
            item += isUtf8 ? QString::fromUtf8(plain) : latin1(plain);
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

    const QByteArray text;
    const bool isUtf8;
    int at = 0;
    bool isQuoteOpen = false;
    bool wasQuoted = false; // the item, which then keeps its blanks
    int trimLimit = 0;      // blanks up to here were escaped and stay
    QString item;
    QStringList items;
};

// Objects are streamed in the versions that QSettings has stayed with.
QDataStream::Version versionOf(bool isDateTime)
{
    return isDateTime ? QDataStream::Qt_5_6 : QDataStream::Qt_4_0;
}

QByteArray streamed(const QVariant &value)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setVersion(versionOf(value.type() == QVariant::DateTime));
    stream << value;
    return bytes;
}

QVariant unstreamed(const QByteArray &bytes, bool isDateTime)
{
    QDataStream stream(bytes);
    stream.setVersion(versionOf(isDateTime));
    QVariant value;
    stream >> value;
    return stream.status() == QDataStream::Ok ? value : QVariant();
}

// Null if it would not come back: streaming leaves out silently what it cannot do.
QString itemOfObject(const QVariant &value)
{
    const bool isDateTime = value.type() == QVariant::DateTime;
    const QByteArray bytes = streamed(value);
    const QVariant back = unstreamed(bytes, isDateTime);
    if (back.userType() != value.userType() || (back != value && streamed(back) != bytes))
        return QString();
    return QLatin1String(isDateTime ? "@DateTime(" : "@Variant(") + latin1(bytes) + QLatin1Char(')');
}

QString itemOf(const QVariant &value)
{
    switch (static_cast<QMetaType::Type>(value.userType())) {
    case QMetaType::UnknownType:
        return QStringLiteral("@Invalid()");
    case QMetaType::QByteArray:
        return QLatin1String("@ByteArray(") + latin1(value.toByteArray()) + QLatin1Char(')');
    case QMetaType::QString:
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
        break;
    default:
        return itemOfObject(value);
    }
    const QString plain = value.toString();
    if (plain.contains(QChar(QChar::Null)))
        return QLatin1String("@String(") + plain + QLatin1Char(')');
    return plain.startsWith(QLatin1Char('@')) ? QLatin1Char('@') + plain : QLatin1String("") + plain;
}

bool isSpecial(const QString &item)
{
    return item.startsWith(QLatin1Char('@')) && !item.startsWith(QLatin1String("@@"));
}

QVariant valueOf(const QString &item)
{
    if (!isSpecial(item))
        return item.startsWith(QLatin1Char('@')) ? item.mid(1) : item;
    const int open = item.indexOf(QLatin1Char('('));
    const QStringRef kind = item.leftRef(open);
    const QString inside = item.mid(open + 1, item.size() - open - 2);
    if (open < 0 || !item.endsWith(QLatin1Char(')')))
        return item;
    if (kind == QLatin1String("@ByteArray"))
        return inside.toLatin1();
    if (kind == QLatin1String("@String"))
        return inside;
    if (kind == QLatin1String("@Variant") || kind == QLatin1String("@DateTime"))
        return unstreamed(inside.toLatin1(), kind == QLatin1String("@DateTime"));
    for (const char *known : {"@Rect", "@Size", "@Point", "@Invalid"}) {
        if (kind == QLatin1String(known))
            return QVariant();
    }
    return item;
}

QByteArray escaped(const QString &item)
{
    QByteArray result;
    bool needsQuotes = item.startsWith(QLatin1Char(' ')) || item.endsWith(QLatin1Char(' '));
    bool isNumberOpen = false; // the next digit would lengthen the escape before it
    for (const QChar ch : item) {
        const ushort code = ch.unicode();
        const char *const control = code == 0 || code > 0x7f ? nullptr : strchr(controlMeanings, code);
        const bool isDigit = code < 0x80 && isxdigit(code) != 0;
        needsQuotes = needsQuotes || code == ';' || code == ',' || code == '=';
        if (control != nullptr) {
            result += '\\';
            result += controls[control - controlMeanings];
        } else if (code == 0) {
            result += "\\0";
        } else if (code < ' ' || code >= 0x7f || (isDigit && isNumberOpen)) {
            result += "\\x" + QByteArray::number(code, 16);
        } else {
            if (code == '"' || code == '\\')
                result += '\\';
            result += static_cast<char>(code);
        }
        isNumberOpen = control == nullptr && (code < ' ' || code >= 0x7f || (isDigit && isNumberOpen));
    }
    return needsQuotes ? '"' + result + '"' : result;
}

} // namespace

namespace IniValue {

QStringList items(const QVariant &value)
{
    QVariantList parts{value};
    if (value.type() == QVariant::StringList ||
        (value.type() == QVariant::List && value.toList().size() != 1))
        parts = value.toList();
    if (parts.isEmpty())
        parts += QVariant();

    QStringList result;
    for (const QVariant &part : qAsConst(parts)) {
        const QString item = itemOf(part);
        if (item.isNull())
            return QStringList();
        result += item;
    }
    return result;
}

QVariant value(const QStringList &items)
{
    if (items.size() == 1)
        return valueOf(items.first());
    QStringList texts;
    QVariantList values;
    bool isMixed = false;
    for (const QString &item : items) {
        isMixed = isMixed || isSpecial(item);
        values += valueOf(item);
        texts += values.last().toString();
    }
    return isMixed ? QVariant(values) : QVariant(texts);
}

QByteArray text(const QStringList &items)
{
    QByteArrayList texts;
    for (const QString &item : items)
        texts += escaped(item);
    return texts.join(", ");
}

QStringList parsed(const QByteArray &text, bool isUtf8)
{
    return ValueReader(text, isUtf8).read();
}

} // namespace IniValue
