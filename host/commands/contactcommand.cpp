// `abonent contact`: whom this installation knows, and by which keys.
#include "host/commands/contactcommand.h"

#include "common/global.h"
#include "host/commands/calltarget.h"
#include "host/commands/commandhelp.h"
#include "host/commands/commandline.h"
#include "host/commands/commands.h"
#include "host/commands/exitcodes.h"
#include "host/commands/failures.h"
#include "host/console/jsonlines.h"
#include "host/console/printing.h"
#include "host/delivery/ccontacts.h"
#include "host/delivery/cidentity.h"
#include "host/delivery/fingerprintwords.h"
#include "host/text/addresstext.h"
#include "host/text/reasons.h"
#include "host/text/untrustedtext.h"

#include <QFile>

#include <cerrno>
#include <cstdio>

namespace {

constexpr qint64 mailLimit = 64 * 1024;

/// Shows a trouble, or what was done. @param event for scripts
int resultOf(const QString &trouble, const QString &success, const QString &event, const QString &name)
{
    if (!trouble.isNull())
        return fail(ExitTrouble, trouble);
    printNote(success);
    if (outputStyle() == OutputStyle::Json) {
        QJsonObject object = jsonEvent(event);
        object.insert(QStringLiteral("name"), name);
        printJsonLine(object);
    }
    return ExitDone;
}

QString shownAddress(const CContact &contact)
{
    if (contact.address.isEmpty())
        return QStringLiteral("-");
    return addressText(contact.address, contact.port);
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
    QJsonObject object{{QStringLiteral("event"), QStringLiteral("contact")},
                       {QStringLiteral("name"), contact.name},
                       {QStringLiteral("address"), contact.address},
                       {QStringLiteral("port"), contact.port},
                       {QStringLiteral("key"), QString::fromLatin1(contact.key.toHex())},
                       {QStringLiteral("invited"), contact.isInvited},
                       {QStringLiteral("blocked"), contact.isBlocked},
                       {QStringLiteral("keyChanged"), !contact.offered.isEmpty()}};
    if (contact.seen.isValid())
        object.insert(QStringLiteral("seen"), jsonTime(contact.seen));
    return object;
}

/// What is known of a contact, a line each.
void printContact(const CContact &contact)
{
    printLine(QStringLiteral("Имя:           %1").arg(printable(contact.name)));
    printLine(QStringLiteral("Адрес:         %1").arg(printable(shownAddress(contact))));
    printLine(QStringLiteral("Состояние:     %1").arg(stateOf(contact)));
    printLine(QStringLiteral("Первая связь:  %1")
                  .arg(contact.seen.isValid()
                           ? contact.seen.toLocalTime().toString(QStringLiteral("dd.MM.yyyy hh:mm"))
                           : QStringLiteral("-")));
    printLine(QStringLiteral("Ключ:          %1").arg(shownFingerprint(contact.key)));
    for (const QByteArray &key : contact.offered)
        printLine(QStringLiteral("Показан ключ:  %1").arg(shownFingerprint(key)));
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

} // namespace

namespace ContactCommand {

int add(const QString &name, const QString &address)
{
    CallTarget target;
    if (!target.setAddress(address)) {
        return fail(ExitUsage, QStringLiteral("Адрес абонента задан неверно: %1").arg(address));
    }
    CContacts contacts;
    const QString trouble = contacts.add(name, target.address, target.port);
    const CContact contact = contacts.find(name).value_or(CContact());
    return resultOf(trouble,
                    QStringLiteral("Контакт '%1', адрес %2, ключ: %3")
                        .arg(contact.name, shownAddress(contact), shownFingerprint(contact.key)),
                    QStringLiteral("added"), name);
}

int list()
{
    const bool isJson = outputStyle() == OutputStyle::Json;
    QString trouble;
    const QVector<CContact> contacts = CContacts().list(&trouble);
    for (const CContact &contact : contacts) {
        if (isJson)
            printJsonLine(jsonOf(contact));
        else
            printLine(QStringLiteral("%1  %2  %3  %4")
                          .arg(printable(contact.name), printable(shownAddress(contact)), stateOf(contact),
                               shownFingerprint(contact.key)));
    }
    if (!trouble.isNull())
        return fail(ExitTrouble, trouble);
    if (contacts.isEmpty())
        printNote(QStringLiteral("Контактов нет"));
    return ExitDone;
}

int remove(const QString &name)
{
    return resultOf(CContacts().remove(name), QStringLiteral("Контакт '%1' удален, его ключ забыт").arg(name),
                    QStringLiteral("removed"), name);
}

int trust(const QString &name, const QString &key)
{
    CContact now;
    const QString trouble = CContacts().trust(name, key, &now);
    return resultOf(trouble,
                    QStringLiteral("Ключ абонента '%1' теперь: %2. Сверьте слова с ним по телефону")
                        .arg(name, shownFingerprint(now.key)),
                    QStringLiteral("trusted"), name);
}

int block(const QString &name, bool isBlocked)
{
    return resultOf(CContacts().setBlocked(name, isBlocked),
                    (isBlocked ? QStringLiteral("Абонент '%1' заблокирован")
                               : QStringLiteral("Абонент '%1' больше не заблокирован"))
                        .arg(name),
                    isBlocked ? QStringLiteral("blocked") : QStringLiteral("unblocked"), name);
}

int exportText(const QString &name, const QString &address)
{
    CContact contact;
    if (name.isEmpty()) {
        const QString trouble = loadOwn(&contact);
        if (!trouble.isNull())
            return fail(ExitTrouble, trouble);
        CallTarget target;
        if (!address.isEmpty() && !target.setAddress(address)) {
            return fail(ExitUsage, QStringLiteral("Адрес задан неверно: %1").arg(address));
        }
        contact.address = target.address;
        contact.port = target.port;
    } else if (const std::optional<CContact> found = CContacts().find(name)) {
        contact = *found;
    } else {
        return fail(ExitTrouble, noContact(name));
    }
    if (outputStyle() == OutputStyle::Json) {
        QJsonObject object = jsonOf(contact);
        object.insert(QStringLiteral("text"), QString::fromUtf8(mailedContact(contact)));
        printJsonLine(object);
    } else {
        std::fputs(mailedContact(contact).constData(), stdout);
    }
    return ExitDone;
}

int import(const QString &fileName)
{
    QFile file(fileName);
    const bool isOpen = fileName == QLatin1String("-") ? file.open(stdin, QIODevice::ReadOnly)
                                                       : file.open(QIODevice::ReadOnly);
    if (!isOpen)
        return fail(ExitTrouble,
                    QStringLiteral("Не удалось прочитать %1. %2").arg(fileName, reasonOf(errno, fileName)));
    QString trouble;
    const std::optional<CContact> contact = contactFromMail(file.read(mailLimit), &trouble);
    if (!contact)
        return fail(ExitTrouble, trouble);
    return resultOf(CContacts().import(*contact),
                    QStringLiteral("Контакт '%1', адрес %2, ключ: %3")
                        .arg(contact->name, shownAddress(*contact), shownFingerprint(contact->key)),
                    QStringLiteral("imported"), contact->name);
}

int show(const QString &name)
{
    if (!name.isEmpty()) {
        const std::optional<CContact> found = CContacts().find(name);
        if (!found)
            return fail(ExitTrouble, noContact(name));
        if (outputStyle() == OutputStyle::Json)
            printJsonLine(jsonOf(*found));
        else
            printContact(*found);
        return ExitDone;
    }
    CContact own;
    const QString trouble = loadOwn(&own);
    if (!trouble.isNull())
        return fail(ExitTrouble, trouble);
    if (outputStyle() == OutputStyle::Json) {
        printJsonLine(jsonOf(own));
        return ExitDone;
    }
    printLine(QStringLiteral("Имя:    %1").arg(printable(own.name)));
    printLine(QStringLiteral("Ключ:   %1").arg(shownFingerprint(own.key)));
    printLine(QStringLiteral("Целиком %1").arg(QString::fromLatin1(own.key.toHex())));
    return ExitDone;
}

} // namespace ContactCommand

int runContact(const CommandLine &line)
{
    const QString action = line.operands.value(0, QStringLiteral("list"));
    const QString name = line.operands.value(1);
    if (action == QLatin1String("list"))
        return ContactCommand::list();
    if (action == QLatin1String("show"))
        return ContactCommand::show(name);
    if (action == QLatin1String("export"))
        return ContactCommand::exportText(name, line.value("address"));
    if (action == QLatin1String("add"))
        return ContactCommand::add(name, line.operands.at(2));
    if (action == QLatin1String("trust"))
        return ContactCommand::trust(name, line.operands.mid(2).join(QLatin1Char(' ')));
    if (action == QLatin1String("remove"))
        return ContactCommand::remove(name);
    if (action == QLatin1String("import"))
        return ContactCommand::import(name);
    return ContactCommand::block(name, action == QLatin1String("block"));
}
