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
    for (const uint character : characters) {
        if (isShown(character))
            result += fromCode(character);
        else
            result +=
                QStringLiteral("\\u%1").arg(QString::number(character, 16).toUpper(), 4, QLatin1Char('0'));
    }
    return result;
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
