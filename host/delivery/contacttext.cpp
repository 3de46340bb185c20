#include "host/delivery/contacttext.h"

#include "common/namefilter.h"
#include "host/delivery/cidentity.h"
#include "host/delivery/fingerprintwords.h"

#include <QSet>

namespace {

constexpr char fileHead[] = "abonents 1";
constexpr char fileWord[] = "abonents ";
constexpr char fileEnd[] = "end ";
constexpr char mailHead[] = "--- abonent contact 1 ---";
constexpr char mailEnd[] = "--- end of contact ---";
constexpr int mailLimit = 64 * 1024;
constexpr int wordsOnALine = 5;

/// A value on one line: what would break the line, or get lost at its ends, is written as %XX for each byte.
QByteArray escaped(const QString &value)
{
    QString result;
    for (int i = 0; i < value.size(); ++i) {
        const QChar character = value.at(i);
        const bool isAtEnd = i == 0 || i == value.size() - 1;
        const bool breaks = character.category() == QChar::Other_Control ||
                            character == QChar::LineSeparator || character == QChar::ParagraphSeparator ||
                            character == QLatin1Char('%') || (character.isSpace() && isAtEnd);
        if (!breaks) {
            result += character;
            continue;
        }
        const QByteArray bytes = QString(character).toUtf8();
        for (const char byte : bytes)
            result += QLatin1Char('%') + QString::fromLatin1(QByteArray(1, byte).toHex().toUpper());
    }
    return result.toUtf8();
}

/// @return none when the bytes are not UTF-8, or hold nothing that escaped() makes
std::optional<QString> unescaped(const QByteArray &value)
{
    const QString text = QString::fromUtf8(QByteArray::fromPercentEncoding(value));
    if (text.toUtf8().size() > CContact::nameBytes || escaped(text) != value)
        return std::nullopt;
    return text;
}

QByteArray line(const char *field, const QByteArray &value)
{
    return QByteArray(field) + ": " + value + '\n';
}

QByteArray yesNo(bool value)
{
    return value ? QByteArrayLiteral("yes") : QByteArrayLiteral("no");
}

bool readYesNo(const QByteArray &value, bool *result)
{
    *result = value == "yes";
    return *result || value == "no";
}

bool readKey(const QByteArray &value, QByteArray *key)
{
    *key = QByteArray::fromHex(value);
    return key->size() == CIdentity::fingerprintSize && key->toHex() == value;
}

/// Name, address, port and key: what a file and a mail have in common.
QByteArray commonLines(const CContact &contact)
{
    QByteArray text = line("name", escaped(contact.name));
    if (!contact.address.isEmpty()) {
        text += line("address", escaped(contact.address));
        text += line("port", QByteArray::number(contact.port));
    }
    if (!contact.key.isEmpty())
        text += line("key", contact.key.toHex());
    return text;
}

/// Reads one line of a contact. @return whether it is one
bool readLine(const QByteArray &text, bool isMail, CContact *contact, QByteArray *words)
{
    const int colon = text.indexOf(": ");
    const QByteArray field = text.left(colon);
    const QByteArray value = text.mid(colon + 2);
    if (colon < 0)
        return false;
    if (field == "name" || field == "address") {
        const std::optional<QString> read = unescaped(value);
        (field == "name" ? contact->name : contact->address) = read.value_or(QString());
        return read.has_value() && !read->isEmpty();
    }
    if (field == "port") {
        contact->port = value.toInt();
        return contact->port >= 1 && contact->port <= 65535;
    }
    if (field == "key")
        return readKey(value, &contact->key);
    if (isMail) {
        if (field == "words")
            *words += (words->isEmpty() ? "" : " ") + value.simplified();
        return true; // what later versions add
    }
    if (field == "seen") {
        contact->seen = QDateTime::fromString(QString::fromLatin1(value), Qt::ISODate);
        return contact->seen.isValid() && contact->seen.timeSpec() == Qt::UTC;
    }
    if (field == "invited")
        return readYesNo(value, &contact->isInvited);
    if (field == "blocked")
        return readYesNo(value, &contact->isBlocked);
    QByteArray key;
    if (field != "offered" || !readKey(value, &key) || contact->offered.size() >= CContact::mostOffered)
        return false;
    contact->offered.append(key);
    return true;
}

bool hasName(const CContact &contact)
{
    return !Global::filterName(contact.name).isEmpty();
}

/// Gathers contacts line by line, and what is wrong.
class FileReader
{
public:
    explicit FileReader(ParsedContacts *parsed) : result(parsed) {}

    void read(const QByteArray &text, int number)
    {
        if (text.isEmpty()) {
            finish();
            return;
        }
        if (!isOpen) {
            isOpen = true;
            firstLine = number;
        }
        QByteArray words;
        const bool isFirst = number == firstLine;
        if (isFirst != text.startsWith("name: ") || !readLine(text, false, &contact, &words))
            isWhole = false;
    }

    void finish()
    {
        if (!isOpen)
            return;
        const QString key = Global::filterName(contact.name);
        if (isWhole && hasName(contact) && !names.contains(key)) {
            names.insert(key);
            result->contacts.append(contact);
        } else {
            complain(QStringLiteral("запись в строке %1 испорчена").arg(firstLine));
        }
        contact = CContact();
        isOpen = false;
        isWhole = true;
    }

    void complain(const QString &text)
    {
        if (result->damage.isNull())
            result->damage = text;
    }

private:
    ParsedContacts *result;
    CContact contact;
    QSet<QString> names;
    int firstLine = 0;
    bool isOpen = false;
    bool isWhole = true;
};

} // namespace

QByteArray contactsToText(const QVector<CContact> &contacts)
{
    QByteArray text = QByteArray(fileHead) + "\n\n";
    for (const CContact &contact : contacts) {
        text += commonLines(contact);
        if (contact.seen.isValid())
            text += line("seen", contact.seen.toUTC().toString(Qt::ISODate).toLatin1());
        text += line("invited", yesNo(contact.isInvited));
        text += line("blocked", yesNo(contact.isBlocked));
        for (const QByteArray &key : contact.offered)
            text += line("offered", key.toHex());
        text += '\n';
    }
    return text + fileEnd + QByteArray::number(contacts.size()) + '\n';
}

ParsedContacts contactsFromText(const QByteArray &text)
{
    ParsedContacts result;
    if (text.isEmpty())
        return result;
    const QList<QByteArray> lines = text.split('\n');
    if (lines.first() != fileHead && lines.first().startsWith(fileWord) &&
        lines.first().mid(int(sizeof(fileWord)) - 1).toInt() > 1) {
        result.isNewer = true;
        return result;
    }

    FileReader reader(&result);
    const bool hasHead = lines.first() == fileHead;
    if (!hasHead)
        reader.complain(QStringLiteral("нет первой строки \"%1\"").arg(QLatin1String(fileHead)));
    QByteArray end;
    for (int i = hasHead ? 1 : 0; i < lines.size() && end.isNull(); ++i) {
        if (lines.at(i).startsWith(fileEnd))
            end = lines.at(i);
        else
            reader.read(lines.at(i), i + 1);
    }
    reader.finish();
    const QByteArray expected = fileEnd + QByteArray::number(result.contacts.size());
    if (end != expected || !text.endsWith(expected + '\n'))
        reader.complain(QStringLiteral("конец файла не на месте"));
    return result;
}

QByteArray mailedContact(const CContact &contact)
{
    QByteArray text = QByteArray(mailHead) + '\n' + commonLines(contact);
    const QStringList words = fingerprintWords(contact.key);
    for (int at = 0; at < words.size(); at += wordsOnALine) // longer lines are broken on their way
        text += line("words", words.mid(at, wordsOnALine).join(QLatin1Char(' ')).toUtf8());
    return text + mailEnd + '\n';
}

std::optional<CContact> contactFromMail(const QByteArray &text, QString *trouble)
{
    CContact contact;
    QByteArray words;
    bool isInside = false;
    bool isEnded = false;
    const QList<QByteArray> lines = text.left(mailLimit).split('\n');
    for (int i = 0; i < lines.size() && !isEnded; ++i) {
        QByteArray bare = lines.at(i).trimmed();
        while (bare.startsWith('>'))
            bare = bare.mid(1).trimmed();
        isEnded = isInside && bare == mailEnd;
        if (isInside && !isEnded && !bare.isEmpty() && !readLine(bare, true, &contact, &words)) {
            *trouble = QStringLiteral("Строка %1 контакта испорчена").arg(i + 1);
            return std::nullopt;
        }
        isInside = isInside || bare == mailHead;
    }
    if (!isEnded)
        *trouble = QStringLiteral("В тексте нет контакта: он стоит между строками \"%1\" и \"%2\"")
                       .arg(QLatin1String(mailHead), QLatin1String(mailEnd));
    else if (!hasName(contact))
        *trouble = QStringLiteral("В контакте нет имени из букв или цифр");
    else if (!words.isEmpty() && words != fingerprintWords(contact.key).join(QLatin1Char(' ')).toUtf8())
        *trouble = QStringLiteral("Слова контакта не подходят к его ключу: он испорчен или подделан");
    else
        return contact;
    return std::nullopt;
}
