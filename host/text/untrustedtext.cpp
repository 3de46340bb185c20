#include "host/text/untrustedtext.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QVector>

namespace {

/// Whether a character shows as itself.
bool isShown(uint character)
{
    switch (QChar::category(character)) {
    case QChar::Other_Control:
    case QChar::Other_Format:
    case QChar::Other_Surrogate:
    case QChar::Other_NotAssigned:
    case QChar::Other_PrivateUse:
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph:
        return false;
    default:
        return true;
    }
}

constexpr uint joiner = 0x200d;

/// Whether a character may be a part of an emoji: symbols, skin tones, the mark that asks for the picture.
bool isPictorial(uint character)
{
    constexpr uint pictureMark = 0xfe0f;
    return character == pictureMark || QChar::category(character) == QChar::Symbol_Other ||
           (character >= 0x1f3fb && character <= 0x1f3ff);
}

QString fromCode(uint character)
{
    return QString::fromUcs4(&character, 1);
}

/// The code points of a text; a surrogate without its partner counts as one.
QVector<uint> codePoints(const QString &text)
{
    QVector<uint> codes;
    codes.reserve(text.size());
    for (int i = 0; i < text.size(); ++i) {
        const bool isPair = text[i].isHighSurrogate() && i + 1 < text.size() && text[i + 1].isLowSurrogate();
        codes << (isPair ? QChar::surrogateToUcs4(text[i], text[i + 1]) : uint(text[i].unicode()));
        i += isPair;
    }
    return codes;
}

} // namespace

QString printable(const QString &text)
{
    QString result;
    result.reserve(text.size());
    const QVector<uint> characters = codePoints(text);
    for (int i = 0; i < characters.size(); ++i) {
        const uint character = characters[i];
        const bool joinsPictures = character == joiner && isPictorial(characters.value(i - 1)) &&
                                   isPictorial(characters.value(i + 1));
        if (isShown(character) || joinsPictures)
            result += fromCode(character);
        else
            result +=
                QStringLiteral("\\u%1").arg(QString::number(character, 16).toUpper(), 4, QLatin1Char('0'));
    }
    return result;
}

QStringList printableLines(const QString &text, int most)
{
    QStringList lines;
    QString rest = text;
    rest.replace(QLatin1String("\r\n"), QLatin1String("\n")).replace(QLatin1Char('\t'), QLatin1Char(' '));
    if (rest.endsWith(QLatin1Char('\n')))
        rest.chop(1);
    const QStringList parts = rest.split(QLatin1Char('\n'));
    const QStringList shown = parts.mid(0, most);
    for (const QString &part : shown)
        lines << printable(part);
    if (parts.size() > most)
        lines << QStringLiteral("... еще строк: %1").arg(parts.size() - most);
    return lines;
}

QString jsonLine(const QJsonObject &object)
{
    QString result;
    const QVector<uint> characters =
        codePoints(QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)));
    for (const uint character : characters) {
        const QString text = fromCode(character);
        for (const QChar &unit : text) {
            if (isShown(character))
                result += unit;
            else
                result += QStringLiteral("\\u%1").arg(unit.unicode(), 4, 16, QLatin1Char('0'));
        }
    }
    return result;
}
