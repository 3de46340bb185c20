// `abonent contact`: whom this installation knows, and by which keys.
#include "host/commands/contactcommand.h"

#include "common/global.h"
#include "host/commands/commandline.h"
#include "host/commands/commands.h"
#include "host/commands/exitcodes.h"
#include "host/console/untrustedtext.h"
#include "host/delivery/ccontacts.h"
#include "host/delivery/cidentity.h"
#include "host/delivery/fingerprintwords.h"

#include <QFile>
#include <QJsonObject>

#include <cstdio>

namespace {

constexpr qint64 mailLimit = 64 * 1024;

void print(const QString &text)
{
    std::fputs((text + QLatin1Char('\n')).toUtf8().constData(), stdout);
}

/// Shows a trouble, if there is one.
int resultOf(const QString &trouble, const QString &success)
{
    if (trouble.isNull()) {
        print(printable(success));
        return ExitDone;
    }
    const QStringList lines = trouble.split(QLatin1Char('\n')); // line feeds are ours, the rest may not be
    for (const QString &line : lines)
        std::fputs((printable(line) + QLatin1Char('\n')).toUtf8().constData(), stderr);
    return ExitTrouble;
}

QString shownAddress(const CContact &contact)
{
    if (contact.address.isEmpty())
        return QStringLiteral("-");
    const bool isIpv6 = contact.address.contains(QLatin1Char(':'));
    return (isIpv6 ? QStringLiteral("[%1]:%2") : QStringLiteral("%1:%2"))
        .arg(contact.address, QString::number(contact.port));
}

QString stateOf(const CContact &contact)
{
    if (contact.isBlocked)
        return QStringLiteral("заблокирован");
    if (!contact.offered.isEmpty())
        return QStringLiteral("показан другой ключ");
    return contact.isInvited ? QStringLiteral("свой") : QStringLiteral("незнакомый");
}

QJsonObject jsonOf(const CContact &contact)
{
    QJsonObject object{{QStringLiteral("name"), contact.name},
                       {QStringLiteral("address"), contact.address},
                       {QStringLiteral("port"), contact.port},
                       {QStringLiteral("key"), QString::fromLatin1(contact.key.toHex())},
                       {QStringLiteral("invited"), contact.isInvited},
                       {QStringLiteral("blocked"), contact.isBlocked},
                       {QStringLiteral("keyChanged"), !contact.offered.isEmpty()}};
    if (contact.seen.isValid())
        object.insert(QStringLiteral("seen"), contact.seen.toString(Qt::ISODate));
    return object;
}

/// What is known of a contact, a line each.
void printContact(const CContact &contact)
{
    print(QStringLiteral("Имя:           %1").arg(printable(contact.name)));
    print(QStringLiteral("Адрес:         %1").arg(printable(shownAddress(contact))));
    print(QStringLiteral("Состояние:     %1").arg(stateOf(contact)));
    print(QStringLiteral("Первая связь:  %1")
              .arg(contact.seen.isValid()
                       ? contact.seen.toLocalTime().toString(QStringLiteral("dd.MM.yyyy hh:mm"))
                       : QStringLiteral("-")));
    print(QStringLiteral("Ключ:          %1").arg(shownFingerprint(contact.key)));
    for (const QByteArray &key : contact.offered)
        print(QStringLiteral("Показан ключ:  %1").arg(shownFingerprint(key)));
}

/// This installation as others see it.
QString loadOwn(CContact *own)
{
    CIdentity identity;
    const QString trouble = identity.prepare();
    own->name = GeneralSettings::chosenName(QString());
    own->key = identity.fingerprint();
    return trouble;
}

QString noContact(const QString &name)
{
    return QStringLiteral("Нет контакта '%1'. Все контакты показывает abonent contact list").arg(name);
}

int usage()
{
    std::fputs("Нужно: abonent contact add|list|remove|trust|block|unblock|export|import|show ...\n"
               "Подробнее: abonent contact --help\n",
               stderr);
    return ExitUsage;
}

} // namespace

namespace ContactCommand {

int add(const QString &name, const QString &address)
{
    QString host;
    int port = CContact::defaultPort;
    if (!parseAddress(address, &host, &port)) {
        resultOf(QStringLiteral("Адрес абонента задан неверно: %1").arg(address), QString());
        return ExitUsage;
    }
    CContacts contacts;
    const QString trouble = contacts.add(name, host, port);
    const CContact contact = contacts.find(name).value_or(CContact());
    return resultOf(trouble, QStringLiteral("Контакт '%1', адрес %2, ключ: %3")
                                 .arg(contact.name, shownAddress(contact), shownFingerprint(contact.key)));
}

int list(bool isJson)
{
    QString trouble;
    const QVector<CContact> contacts = CContacts().list(&trouble);
    for (const CContact &contact : contacts) {
        if (isJson)
            print(jsonLine(jsonOf(contact)));
        else
            print(QStringLiteral("%1  %2  %3  %4")
                      .arg(printable(contact.name), printable(shownAddress(contact)), stateOf(contact),
                           shownFingerprint(contact.key)));
    }
    if (!trouble.isNull())
        return resultOf(trouble, QString());
    if (contacts.isEmpty() && !isJson)
        print(QStringLiteral("Контактов нет"));
    return ExitDone;
}

int remove(const QString &name)
{
    return resultOf(CContacts().remove(name),
                    QStringLiteral("Контакт '%1' удален, его ключ забыт").arg(name));
}

int trust(const QString &name, const QString &key)
{
    CContact now;
    const QString trouble = CContacts().trust(name, key, &now);
    return resultOf(trouble, QStringLiteral("Ключ абонента '%1' теперь: %2. Сверьте слова с ним по телефону")
                                 .arg(name, shownFingerprint(now.key)));
}

int block(const QString &name, bool isBlocked)
{
    return resultOf(CContacts().setBlocked(name, isBlocked),
                    (isBlocked ? QStringLiteral("Абонент '%1' заблокирован")
                               : QStringLiteral("Абонент '%1' больше не заблокирован"))
                        .arg(name));
}

int exportText(const QString &name, const QString &address)
{
    CContact contact;
    if (name.isEmpty()) {
        const QString trouble = loadOwn(&contact);
        if (!trouble.isNull())
            return resultOf(trouble, QString());
        if (!address.isEmpty() && !parseAddress(address, &contact.address, &contact.port)) {
            resultOf(QStringLiteral("Адрес задан неверно: %1").arg(address), QString());
            return ExitUsage;
        }
    } else if (const std::optional<CContact> found = CContacts().find(name)) {
        contact = *found;
    } else {
        return resultOf(noContact(name), QString());
    }
    std::fputs(mailedContact(contact).constData(), stdout);
    return ExitDone;
}

int import(const QString &fileName)
{
    QFile file(fileName);
    const bool isOpen = fileName == QLatin1String("-") ? file.open(stdin, QIODevice::ReadOnly)
                                                       : file.open(QIODevice::ReadOnly);
    if (!isOpen)
        return resultOf(QStringLiteral("Не удалось прочитать %1. %2").arg(fileName, file.errorString()),
                        QString());
    QString trouble;
    const std::optional<CContact> contact = contactFromMail(file.read(mailLimit), &trouble);
    if (!contact)
        return resultOf(trouble, QString());
    return resultOf(CContacts().import(*contact),
                    QStringLiteral("Контакт '%1', адрес %2, ключ: %3")
                        .arg(contact->name, shownAddress(*contact), shownFingerprint(contact->key)));
}

int show(const QString &name)
{
    if (!name.isEmpty()) {
        const std::optional<CContact> found = CContacts().find(name);
        if (!found)
            return resultOf(noContact(name), QString());
        printContact(*found);
        return ExitDone;
    }
    CContact own;
    const QString trouble = loadOwn(&own);
    if (!trouble.isNull())
        return resultOf(trouble, QString());
    print(QStringLiteral("Имя:    %1").arg(printable(own.name)));
    print(QStringLiteral("Ключ:   %1").arg(shownFingerprint(own.key)));
    print(QStringLiteral("Целиком %1").arg(QString::fromLatin1(own.key.toHex())));
    return ExitDone;
}

} // namespace ContactCommand

int runContact(const CommandLine &line)
{
    QStringList words = line.operands;
    const bool isJson = words.removeAll(QStringLiteral("--json")) > 0;
    QString address;
    const int option = words.indexOf(QStringLiteral("--address"));
    if (option >= 0 && option + 1 < words.size()) {
        address = words.at(option + 1);
        words.erase(words.begin() + option, words.begin() + option + 2);
    }
    const QString action = words.value(0);
    const QString name = words.value(1);
    const int count = words.size() - 1;
    if (action == QLatin1String("list") && count == 0)
        return ContactCommand::list(isJson);
    if (action == QLatin1String("show") && count <= 1)
        return ContactCommand::show(name);
    if (action == QLatin1String("export") && count <= 1)
        return ContactCommand::exportText(name, address);
    if (action == QLatin1String("add") && count == 2)
        return ContactCommand::add(name, words.at(2));
    if (action == QLatin1String("trust") && count >= 1)
        return ContactCommand::trust(name, words.mid(2).join(QLatin1Char(' ')));
    if (count != 1)
        return usage();
    if (action == QLatin1String("remove"))
        return ContactCommand::remove(name);
    if (action == QLatin1String("import"))
        return ContactCommand::import(name);
    if (action == QLatin1String("block") || action == QLatin1String("unblock"))
        return ContactCommand::block(name, action == QLatin1String("block"));
    return usage();
}
