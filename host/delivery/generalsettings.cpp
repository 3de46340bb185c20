#include "host/delivery/generalsettings.h"
#include "host/text/reasons.h"

#include "common/global.h"
#include "common/initext.h"
#include "common/inivalue.h"
#include "common/settingsfile.h"
#include "common/settingslock.h"
#include "common/terminationguard.h"

#include <QFileInfo>
#include <QSysInfo>

#include <cerrno>

namespace {

constexpr int lockTimeoutMs = 2000;
constexpr qint64 megabyte = 1024 * 1024;

struct NumberKey
{
    const char *name;
    int defaultValue;
    int min;
    int max;
    void (*put)(GeneralSettings *settings, int value);
    const char *meaning;
};

// clang-format off
constexpr char nameKey[]   = "Abonent/name";
constexpr char policyKey[] = "Contacts/policy";
constexpr NumberKey numberKeys[] = {
    {"Strangers/messageMb",      64,      0, 1048576,
     [](GeneralSettings *s, int value) { s->quotas.messageBytes = value * megabyte; },
     "наибольшее сообщение незнакомого абонента, МБайт"},
    {"Strangers/messagesPerDay", 100,     0, 1000000,
     [](GeneralSettings *s, int value) { s->quotas.messagesPerDay = value; },
     "сообщений в сутки от одного незнакомого абонента"},
    {"Strangers/diskMb",         1024,    0, 1048576,
     [](GeneralSettings *s, int value) { s->quotas.diskBytes = value * megabyte; },
     "место на диске для сообщений всех незнакомых абонентов, МБайт"},
    {"Strangers/newPerDay",      20,      0, 1000,
     [](GeneralSettings *s, int value) { s->quotas.newContactsPerDay = value; },
     "незнакомых абонентов, впервые вызвавших нас за сутки"},
    {"Strangers/contacts",       500,     0, 1000,
     [](GeneralSettings *s, int value) { s->quotas.contacts = value; },
     "незнакомых абонентов всего, при любом правиле"},
    {"Journal/keepDays",         0,       0, 36500,
     [](GeneralSettings *s, int value) { s->journalKeepDays = value; },
     "сколько суток хранить записи журнала сообщений; 0 - всегда"},
    {"Journal/keepRows",         1000000, 0, 100000000,
     [](GeneralSettings *s, int value) { s->journalKeepRows = value; },
     "сколько последних записей журнала сообщений хранить; 0 - все"},
};
// clang-format on

struct PolicyName
{
    WritingPolicy policy;
    const char *name;
};

constexpr PolicyName policyNames[] = {
    {WritingPolicy::Known, "known"},
    {WritingPolicy::FirstContact, "first contact"},
    {WritingPolicy::All, "all"},
};

QString latin(const char *text)
{
    return QString::fromLatin1(text);
}

QString nameOf(WritingPolicy policy)
{
    for (const PolicyName &entry : policyNames) {
        if (entry.policy == policy)
            return latin(entry.name);
    }
    return QString();
}

QString readText(CIniText *ini)
{
    const QString path = Global::generalSettingsFilePath();
    SettingsFile::Contents contents;
    if (!SettingsFile::read(path, &contents))
        return QStringLiteral("Не удалось прочитать %1. %2").arg(path, reasonOf(errno, path));
    *ini = CIniText(contents.text);
    return ini->isWellFormed() ? QString() : QStringLiteral("В файле %1 есть испорченные строки").arg(path);
}

QString textOf(const CIniText &ini, const QString &key)
{
    const QStringList items = ini.items(key);
    return items.isEmpty() ? QString() : IniValue::value(items).toString();
}

} // namespace

GeneralSettings GeneralSettings::load(QString *trouble)
{
    const CTerminationGuard guard;
    CIniText ini;
    const QString error = readText(&ini);
    if (trouble)
        *trouble = error;

    GeneralSettings settings;
    const auto usable = [&](const QString &key) {
        const QString text = textOf(ini, key);
        return refusal(key, text).isNull() ? text : QString();
    };
    settings.ownName = usable(latin(nameKey));
    const QString policy = usable(latin(policyKey));
    for (const PolicyName &entry : policyNames) {
        if (policy == latin(entry.name))
            settings.policy = entry.policy;
    }
    for (const NumberKey &entry : numberKeys) {
        const QString text = usable(latin(entry.name));
        entry.put(&settings, text.isEmpty() ? entry.defaultValue : text.toInt());
    }
    return settings;
}

QString GeneralSettings::refusal(const QString &key, const QString &text)
{
    if (key == latin(nameKey)) {
        const bool isUsable =
            text.isEmpty() || (!Global::filterName(text).isEmpty() && text.toUtf8().size() <= 1024);
        return isUsable ? QString() : QStringLiteral("%1: в имени нужны буквы или цифры").arg(key);
    }
    if (key == latin(policyKey)) {
        for (const PolicyName &entry : policyNames) {
            if (text == latin(entry.name))
                return QString();
        }
        return QStringLiteral("%1: нужно known, first contact или all, а не '%2'").arg(key, text);
    }
    for (const NumberKey &entry : numberKeys) {
        if (key != latin(entry.name))
            continue;
        bool isNumber = false;
        const int value = text.toInt(&isNumber);
        return isNumber && value >= entry.min && value <= entry.max
                   ? QString()
                   : QStringLiteral("%1: нужно число от %2 до %3, а не '%4'")
                         .arg(key, QString::number(entry.min), QString::number(entry.max), text);
    }
    return QStringLiteral("Нет такого ключа: %1").arg(key);
}

QString GeneralSettings::chosenName(const QString &given)
{
    const QString stored = given.isEmpty() ? load().ownName : given;
    const QString user = Global::currentSystemUserName();
    return !stored.isEmpty() ? stored : !user.isEmpty() ? user : QSysInfo::machineHostName();
}

QString GeneralSettings::set(const QString &key, const QString &text)
{
    const CTerminationGuard guard;
    const QString objection = refusal(key, text);
    if (!objection.isNull())
        return objection;

    const QString path = Global::generalSettingsFilePath();
    Global::makePath(QFileInfo(path).absoluteDir());
    const auto failed = [&] {
        return QStringLiteral("Не удалось изменить %1. %2").arg(path, reasonOf(errno, path));
    };
    CSettingsLock lock(path);
    SettingsFile::Contents contents;
    if (!lock.take(lockTimeoutMs) || !SettingsFile::read(path, &contents))
        return failed();
    const bool isNew = contents.id == SettingsFile::Stamp::Absent;
    CIniText ini(contents.text);
    int modeError = 0;
    if (!ini.set(key, IniValue::items(text))) {
        errno = EILSEQ;
        return failed();
    }
    if (!SettingsFile::replace(contents, ini.text(), &modeError))
        return failed();
    if (isNew)
        Global::setFilePermissions(path);
    return QString();
}

QString quotaRefusal(const StrangerQuotas &quotas, const StrangerUsage &usage, qint64 size)
{
    const auto megabytes = [](qint64 bytes) { return QString::number(bytes / megabyte); };
    if (size > quotas.messageBytes)
        return QStringLiteral("От незнакомых абонентов принимаются сообщения не более %1 МБайт")
            .arg(megabytes(quotas.messageBytes));
    if (usage.messagesToday >= quotas.messagesPerDay)
        return QStringLiteral("От незнакомого абонента принимается не более %1 сообщений в сутки")
            .arg(quotas.messagesPerDay);
    if (size > quotas.diskBytes - usage.bytesOnDisk)
        return QStringLiteral("Место для сообщений незнакомых абонентов (%1 МБайт) занято")
            .arg(megabytes(quotas.diskBytes));
    return QString();
}

std::vector<GeneralSettingsKey> generalSettingsKeys()
{
    CIniText ini;
    readText(&ini);
    const GeneralSettings settings = GeneralSettings::load();
    std::vector<GeneralSettingsKey> keys = {
        {latin(nameKey), settings.ownName, QString(), QStringLiteral("текст"),
         QStringLiteral("имя этого абонента; пустое - имя пользователя системы")},
        {latin(policyKey), nameOf(settings.policy), nameOf(WritingPolicy::FirstContact),
         QStringLiteral("known, first contact, all"),
         QStringLiteral("кто может писать: только свои контакты; и незнакомые с ограничениями; все")},
    };
    for (const NumberKey &entry : numberKeys) {
        const QString text = textOf(ini, latin(entry.name));
        const bool isSet = GeneralSettings::refusal(latin(entry.name), text).isNull();
        keys.push_back({latin(entry.name), isSet ? text : QString::number(entry.defaultValue),
                        QString::number(entry.defaultValue),
                        QStringLiteral("%1..%2").arg(entry.min).arg(entry.max),
                        QString::fromUtf8(entry.meaning)});
    }
    return keys;
}
