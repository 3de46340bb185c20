#include "host/delivery/ccontacts.h"

#include "common/global.h"
#include "common/logger.h"
#include "common/settingslock.h"
#include "common/terminationguard.h"
#include "common/trustedfile.h"
#include "host/delivery/cidentity.h"
#include "host/delivery/fingerprintwords.h"
#include "host/text/reasons.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int lockTimeoutMs = 2000;
constexpr int sizeLimit = 4 * 1024 * 1024; // what SettingsFile::read() takes

void log(const QString &text)
{
    debug(QStringLiteral("CContacts"), text, DebugAlways, DebugFlagNone);
}

/// For the log, and for whoever sits in front of the program.
void warn(const QString &text)
{
    debug(QStringLiteral("CContacts"), text, DebugAlways, DebugFlagFileOnly);
    qWarning("%s", text.toUtf8().constData());
}

template <typename Contacts>
auto *contactOf(Contacts &contacts, const QString &name)
{
    const QString filtered = Global::filterName(name);
    const auto found = std::find_if(contacts.begin(), contacts.end(), [&](const CContact &contact) {
        return Global::filterName(contact.name) == filtered;
    });
    return found == contacts.end() ? nullptr : &*found;
}

/// What becomes of somebody, before anything is written.
struct Decision
{
    Verdict verdict; // PinnedNow: the key is to be written down
    QString reason;  // of NotInvited
};

Decision notInvited(const QString &reason)
{
    return {Verdict::NotInvited, reason};
}

Decision decideOnStranger(const QVector<CContact> &contacts, CContacts::Direction direction)
{
    if (direction == CContacts::Placed)
        return {Verdict::PinnedNow, QString()};
    const GeneralSettings settings = GeneralSettings::load();
    if (settings.policy == WritingPolicy::Known)
        return notInvited(QStringLiteral("пишут только свои контакты"));
    const QDateTime dayAgo = QDateTime::currentDateTimeUtc().addDays(-1);
    int strangers = 0;
    int newToday = 0;
    for (const CContact &contact : contacts) {
        strangers += !contact.isInvited;
        newToday += !contact.isInvited && contact.seen > dayAgo;
    }
    if (strangers >= settings.quotas.contacts)
        return notInvited(QStringLiteral("незнакомых абонентов уже %1").arg(strangers));
    if (settings.policy == WritingPolicy::FirstContact && newToday >= settings.quotas.newContactsPerDay)
        return notInvited(QStringLiteral("незнакомых абонентов за сутки уже %1").arg(newToday));
    return {Verdict::PinnedNow, QString()};
}

Decision decide(const QVector<CContact> &contacts, const QString &name, const QByteArray &key,
                CContacts::Direction direction)
{
    if (Global::filterName(name).isEmpty() || name.toUtf8().size() > CContact::nameBytes)
        return notInvited(QStringLiteral("в имени нет ни букв, ни цифр, или оно слишком длинно"));
    if (key.size() != CIdentity::fingerprintSize)
        return notInvited(QStringLiteral("ключ не показан"));

    const CContact *contact = contactOf(contacts, name);
    const auto hasKey = [&](const CContact &other) { return other.key == key; };
    const auto isBarred = [&](const CContact &other) { return other.isBlocked && other.key == key; };
    if ((contact && contact->isBlocked) || std::any_of(contacts.begin(), contacts.end(), isBarred))
        return {Verdict::Blocked, QString()};
    if (!contact)
        return decideOnStranger(contacts, direction);
    if (contact->key.isEmpty())
        return {Verdict::PinnedNow, QString()};
    if (contact->key != key) {
        const bool isAnothers = std::any_of(contacts.begin(), contacts.end(), hasKey);
        return {isAnothers ? Verdict::NameTaken : Verdict::KeyChanged, QString()};
    }
    if (!contact->isInvited && direction == CContacts::Answered &&
        GeneralSettings::load().policy == WritingPolicy::Known)
        return notInvited(QStringLiteral("пишут только свои контакты"));
    return {Verdict::Known, QString()};
}

QString textOf(Verdict verdict, const QString &name, const CContact &contact, const QByteArray &key,
               const QString &reason)
{
    switch (verdict) {
    case Verdict::Known:
        break;
    case Verdict::PinnedNow:
        return QStringLiteral(
                   "Первая связь с абонентом '%1', его ключ запомнен: %2. Сверьте слова с ним по телефону")
            .arg(name, shownFingerprint(key));
    case Verdict::KeyChanged:
        return QStringLiteral(
                   "КЛЮЧ АБОНЕНТА '%1' ИЗМЕНИЛСЯ. Был: %2. Показан: %3. Либо он переустановил программу, "
                   "либо за него выдает себя другой. Если он сам подтвердит новые слова: abonent "
                   "contact trust")
            .arg(name, shownFingerprint(contact.key), shownFingerprint(key));
    case Verdict::NameTaken:
        return QStringLiteral("Имя '%1' принадлежит другому ключу: %2. Показан ключ другого контакта: %3")
            .arg(name, shownFingerprint(contact.key), shownFingerprint(key));
    case Verdict::NotInvited:
        return QStringLiteral("Абонент '%1' не принят: %2. Его ключ: %3")
            .arg(name, reason, shownFingerprint(key));
    case Verdict::Blocked:
        return QStringLiteral("Абонент '%1' заблокирован").arg(name);
    case Verdict::NotStored:
        return QStringLiteral("Первая связь с абонентом '%1', но его ключ не удалось запомнить: %2")
            .arg(name, reason);
    }
    return QString();
}

void pin(QVector<CContact> *contacts, const QString &name, const QByteArray &key,
         CContacts::Direction direction)
{
    CContact *contact = contactOf(*contacts, name);
    if (!contact) {
        contacts->append(CContact());
        contact = &contacts->last();
        contact->name = name;
        contact->isInvited = direction == CContacts::Placed;
    }
    contact->key = key;
    contact->seen = QDateTime::currentDateTimeUtc();
    contact->offered.clear();
}

/// Remembers a refused key, for trust(). @return whether that changes anything
bool offer(CContact *contact, const QByteArray &key)
{
    if (!contact || contact->offered.contains(key))
        return false;
    if (contact->offered.size() >= CContact::mostOffered)
        contact->offered.removeFirst();
    contact->offered.append(key);
    return true;
}

/// Whether words or digits that a person has typed mean a key.
bool means(const QString &typed, const QByteArray &key)
{
    const QString words = typed.simplified().toLower();
    const QString digits = QString(words).remove(QLatin1Char(' '));
    const QString whole = QString::fromLatin1(key.toHex());
    return words == fingerprintWords(key).join(QLatin1Char(' ')) || digits == whole ||
           digits == whole.left(2 * fingerprintWordCount);
}

QString noContact(const QString &name)
{
    return QStringLiteral("Нет контакта '%1'").arg(name);
}

} // namespace

CContacts::CContacts(const QString &filePath)
    : path(filePath.isNull() ? Global::abonentsSettingsFilePath() : filePath)
{}

Judgement CContacts::judge(const QString &name, const QByteArray &fingerprint, Direction direction)
{
    Judgement result;
    QString trouble = refresh();
    Decision decision{};
    {
        const QMutexLocker locker(&mutex);
        decision = decide(contacts, name, fingerprint, direction);
        if (const CContact *contact = contactOf(contacts, name))
            result.contact = *contact;
    }
    if (!trouble.isNull()) {
        if (decision.verdict == Verdict::PinnedNow) // the contact may be in what we could not read
            decision = {Verdict::NotStored, trouble};
    } else if (decision.verdict == Verdict::PinnedNow || decision.verdict == Verdict::KeyChanged) {
        trouble = change([&](QVector<CContact> *fresh) {
            decision = decide(*fresh, name, fingerprint, direction); // another process may have been faster
            if (decision.verdict == Verdict::PinnedNow)
                pin(fresh, name, fingerprint, direction);
            else if (decision.verdict == Verdict::KeyChanged)
                offer(contactOf(*fresh, name), fingerprint);
            if (const CContact *contact = contactOf(*fresh, name))
                result.contact = *contact;
            return QString();
        });
        if (!trouble.isNull() && decision.verdict == Verdict::PinnedNow)
            decision = {Verdict::NotStored, trouble};
    }
    result.verdict = decision.verdict;
    result.text = textOf(result.verdict, name, result.contact, fingerprint, decision.reason);
    if (!result.mayGoOn() || result.verdict == Verdict::PinnedNow)
        log(result.text);
    return result;
}

std::optional<CContact> CContacts::find(const QString &name)
{
    refresh();
    const QMutexLocker locker(&mutex);
    const CContact *contact = contactOf(contacts, name);
    return contact ? std::make_optional(*contact) : std::nullopt;
}

QVector<CContact> CContacts::list(QString *trouble)
{
    const QString text = refresh();
    if (trouble)
        *trouble = text;
    const QMutexLocker locker(&mutex);
    return contacts;
}

QString CContacts::add(const QString &name, const QString &address, int port)
{
    if (Global::filterName(name).isEmpty())
        return QStringLiteral("В имени абонента '%1' нет ни букв, ни цифр").arg(name);
    if (name.toUtf8().size() > CContact::nameBytes || address.toUtf8().size() > CContact::nameBytes)
        return QStringLiteral("Имя или адрес слишком длинные: не более %1 байт").arg(CContact::nameBytes);
    return change([&](QVector<CContact> *fresh) {
        CContact *contact = contactOf(*fresh, name);
        if (!contact) {
            fresh->append(CContact());
            contact = &fresh->last();
            contact->name = name;
        }
        contact->address = address;
        contact->port = port;
        contact->isInvited = true;
        return QString();
    });
}

QString CContacts::remove(const QString &name)
{
    return change([&](QVector<CContact> *fresh) {
        const CContact *contact = contactOf(*fresh, name);
        if (!contact)
            return noContact(name);
        fresh->remove(int(contact - fresh->constData()));
        return QString();
    });
}

QString CContacts::trust(const QString &name, const QString &which, CContact *now)
{
    return change([&](QVector<CContact> *fresh) {
        CContact *contact = contactOf(*fresh, name);
        if (!contact)
            return noContact(name);
        QVector<QByteArray> candidates = contact->offered;
        if (!which.isEmpty()) {
            const QByteArray typed = QByteArray::fromHex(which.toLatin1());
            candidates << contact->key << typed;
            const auto isOther = [&](const QByteArray &key) {
                return key.size() != CIdentity::fingerprintSize || !means(which, key);
            };
            candidates.erase(std::remove_if(candidates.begin(), candidates.end(), isOther), candidates.end());
            if (candidates.isEmpty())
                return QStringLiteral("Такого ключа абонент '%1' не показывал").arg(name);
        } else if (candidates.isEmpty()) {
            candidates << contact->key; // the user gets to like a stranger
        } else if (candidates.size() > 1) {
            QStringList shown;
            for (const QByteArray &key : qAsConst(candidates))
                shown << shownFingerprint(key);
            return QStringLiteral("Под именем '%1' показаны разные ключи; укажите слова того, который он сам "
                                  "подтвердил:\n%2")
                .arg(name, shown.join(QLatin1Char('\n')));
        }
        if (contact->key != candidates.first())
            pin(fresh, name, candidates.first(), Placed);
        contact->offered.clear();
        contact->isInvited = true;
        if (now)
            *now = *contact;
        return QString();
    });
}

QString CContacts::setBlocked(const QString &name, bool isBlocked)
{
    return change([&](QVector<CContact> *fresh) {
        CContact *contact = contactOf(*fresh, name);
        if (!contact)
            return noContact(name);
        contact->isBlocked = isBlocked;
        return QString();
    });
}

QString CContacts::import(const CContact &imported)
{
    return change([&](QVector<CContact> *fresh) {
        CContact *contact = contactOf(*fresh, imported.name);
        if (!contact) {
            fresh->append(CContact());
            contact = &fresh->last();
            contact->name = imported.name;
        } else if (!contact->key.isEmpty() && !imported.key.isEmpty() && contact->key != imported.key) {
            return QStringLiteral(
                       "У абонента '%1' уже другой ключ: %2. Принять ключ из письма: abonent contact trust "
                       "ИМЯ и его слова %3")
                .arg(imported.name, shownFingerprint(contact->key), shownFingerprint(imported.key));
        }
        if (!imported.key.isEmpty())
            contact->key = imported.key;
        if (!imported.address.isEmpty()) {
            contact->address = imported.address;
            contact->port = imported.port;
        }
        contact->isInvited = true;
        return QString();
    });
}

/// Takes in the file as it is now. @return null, or why it cannot be used or changed
QString CContacts::refresh()
{
    const CTerminationGuard guard;
    const QByteArray name = QFile::encodeName(path);
    const SettingsFile::Stamp now = SettingsFile::stamp(name.constData());
    {
        const QMutexLocker locker(&mutex);
        if (now.id == stamp && !isFresh)
            return state;
    }

    SettingsFile::Contents contents;
    ParsedContacts parsed;
    QString trouble;
    if (!SettingsFile::read(path, &contents)) {
        trouble = QStringLiteral("Не удалось прочитать контакты %1. %2").arg(path, reasonOf(errno, path));
        contents.id = SettingsFile::Stamp::Unknown;
    } else {
        parsed = contactsFromText(contents.text);
        if (parsed.isNewer)
            trouble = QStringLiteral("Контакты %1 записаны более новой версией программы").arg(path);
        else if (!parsed.damage.isNull())
            trouble = putAside(parsed.damage);
        if (!parsed.damage.isNull() && trouble.isNull())
            contents.id = SettingsFile::Stamp::Unknown; // it has been mended
    }

    QMutexLocker locker(&mutex);
    const bool isNews = !trouble.isNull() && trouble != state;
    contacts = parsed.contacts;
    stamp = contents.id;
    isFresh = now.isFresh();
    state = trouble;
    locker.unlock();
    if (isNews)
        warn(trouble);
    return trouble;
}

/// Reads, changes and writes the contacts as one step among all processes.
QString CContacts::change(const std::function<QString(QVector<CContact> *)> &make)
{
    const CTerminationGuard guard;
    Global::makePath(QFileInfo(path).absoluteDir());
    const QString trouble = refresh(); // mends what is damaged, under the lock of its own
    if (!trouble.isNull())
        return trouble;
    const auto failed = [&] {
        return QStringLiteral("Не удалось записать контакты %1. %2").arg(path, reasonOf(errno, path));
    };
    CSettingsLock lock(path);
    SettingsFile::Contents contents;
    if (!lock.take(lockTimeoutMs) || !SettingsFile::read(path, &contents))
        return failed();
    ParsedContacts parsed = contactsFromText(contents.text);
    if (parsed.isNewer || !parsed.damage.isNull())
        return QStringLiteral("Контакты %1 только что испорчены. %2").arg(path, parsed.damage);

    const QString refusal = make(&parsed.contacts);
    const QByteArray text = contactsToText(parsed.contacts);
    if (!refusal.isNull() || text == contents.text)
        return refusal;
    if (text.size() > sizeLimit) {
        errno = EFBIG;
        return failed();
    }
    const bool isNew = contents.id == SettingsFile::Stamp::Absent;
    int modeError = 0;
    if (!SettingsFile::replace(contents, text, &modeError))
        return failed();
    if (isNew)
        Global::setFilePermissions(path);
    const CDescriptor directory(::open(QFile::encodeName(QFileInfo(path).absolutePath()).constData(),
                                       O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.isOpen())
        ::fsync(directory.get()); // a pin must outlive a loss of power

    const QMutexLocker locker(&mutex);
    contacts = parsed.contacts;
    stamp = SettingsFile::Stamp::Unknown; // read it again: other processes write as well
    return QString();
}

/// Keeps a copy of a damaged file, and writes what is whole in it in its place.
/// @return null when that is done, or not needed any more
QString CContacts::putAside(const QString &damage)
{
    const QString text = QStringLiteral("Контакты %1 испорчены (%2)").arg(path, damage);
    const auto failed = [&](const char *what) {
        return QStringLiteral("%1, %2. %3").arg(text, QString::fromUtf8(what), reasonOf(errno, path));
    };
    CSettingsLock lock(path);
    SettingsFile::Contents contents;
    if (!lock.take(lockTimeoutMs) || !SettingsFile::read(path, &contents))
        return failed("отложить их не удалось");
    const ParsedContacts parsed = contactsFromText(contents.text);
    if (parsed.damage.isNull())
        return QString(); // another process has done it

    const QString stem =
        QStringLiteral("%1.damaged-%2")
            .arg(path, QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss-zzz")));
    QString aside = stem;
    CDescriptor copy;
    for (int i = 1; i < 100 && !copy.isOpen(); ++i) {
        copy = TrustedFile::openNoFollow(aside, O_WRONLY | O_CREAT | O_EXCL, contents.mode & 0777);
        if (!copy.isOpen())
            aside = QStringLiteral("%1-%2").arg(stem, QString::number(i));
    }
    if (!copy.isOpen() || !Io::writeAll(copy, contents.text) || ::fsync(copy.get()) != 0)
        return failed("отложить их не удалось");
    int modeError = 0;
    if (!SettingsFile::replace(contents, contactsToText(parsed.contacts), &modeError))
        return failed("исправить их не удалось");
    warn(QStringLiteral(
             "%1; отложены в %2, целых контактов осталось: %3. Ключи остальных придется сверить заново")
             .arg(text, aside, QString::number(parsed.contacts.size())));
    return QString();
}
