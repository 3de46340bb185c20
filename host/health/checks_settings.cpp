// Doctor's look at the settings, which is what `abonent settings check` shows as well.
#include "host/health/checks.h"

#include "common/csettings.h"
#include "common/global.h"
#include "common/initext.h"
#include "common/inivalue.h"
#include "common/settingsfile.h"
#include "host/delivery/generalsettings.h"
#include "host/settings/settingstable.h"
#include "host/text/reasons.h"

#include <QFileInfo>
#include <QSet>

#include <cerrno>

namespace {

QString setAdvice(const QString &key)
{
    return QStringLiteral("abonent settings set %1=ЗНАЧЕНИЕ").arg(key);
}

/// What people have written into an INI file by hand is UTF-8, but not to the file's own rules.
QString asWritten(const QString &text)
{
    const QString decoded = QString::fromUtf8(text.toLatin1());
    const bool isOther =
        text != QString::fromLatin1(text.toLatin1()) || decoded.contains(QChar::ReplacementCharacter);
    return isOther ? text : decoded;
}

void checkRecord(const ChannelSettingsFile &file, Findings *findings)
{
    if (!file.error.isNull()) {
        findings->push_back(
            Finding::error("settings-unreadable", file.error,
                           QStringLiteral("Откройте файл пользователю программы: chmod, chown")));
        return;
    }
    if (!file.damage.isNull()) {
        findings->push_back(
            Finding::error("settings-damaged",
                           QStringLiteral("%1. IP-канал использует порт %2")
                               .arg(file.damage)
                               .arg(quint16(file.settings.port)),
                           QStringLiteral("abonent settings set --repair port=%1 запишет файл заново")
                               .arg(ChannelSettingsFile::defaults().port)));
        return;
    }
    for (const RecordKey &key : recordKeys) {
        const int value = key.valueIn(file.settings);
        if (value < key.min || value > key.max)
            findings->push_back(Finding::error("out-of-range",
                                               QStringLiteral("channelIp.conf, %1: %2 вне диапазона %3..%4")
                                                   .arg(QLatin1String(key.name), QString::number(value),
                                                        QString::number(key.min), QString::number(key.max)),
                                               setAdvice(QLatin1String(key.name))));
    }
}

/// The text of an INI file, and what is wrong with the file as a whole. @return whether there is a text
bool readIni(const QString &path, CIniText *ini, Findings *findings)
{
    SettingsFile::Contents contents;
    if (!SettingsFile::read(path, &contents)) {
        findings->push_back(
            Finding::error("settings-unreadable",
                           QStringLiteral("Не удалось прочитать %1. %2").arg(path, reasonOf(errno, path)),
                           QStringLiteral("Откройте файл пользователю программы; ссылки постороннего и не "
                                          "файлы на его месте не читаются")));
        return false;
    }
    *ini = CIniText(contents.text);
    if (!ini->isWellFormed())
        findings->push_back(Finding::error(
            "settings-damaged",
            QStringLiteral("В файле %1 есть испорченные строки, они не действуют").arg(path),
            QStringLiteral("Исправьте или удалите строки, которые не [Группа] и не ключ=значение")));
    return true;
}

/// Keys in groups of ours that are none of ours: mistyped, as a rule.
void checkUnknown(const QString &fileName, const CIniText &ini, const QStringList &known, Findings *findings)
{
    QSet<QString> groups;
    for (const QString &key : known)
        groups.insert(key.section(QLatin1Char('/'), 0, 0));
    QStringList unknown;
    const QStringList present = ini.keys();
    for (const QString &key : present) {
        if (!known.contains(key) && groups.contains(key.section(QLatin1Char('/'), 0, 0)))
            unknown << key;
    }
    unknown.sort();
    if (!unknown.isEmpty())
        findings->push_back(Finding::attention(
            "unknown-key",
            QStringLiteral("%1: нет таких ключей: %2").arg(fileName, unknown.join(QStringLiteral(", "))),
            QStringLiteral("Исправьте имя (регистр важен) или удалите строку")));
}

QString textOf(const CIniText &ini, const QString &key)
{
    const QStringList items = ini.items(key);
    return items.isEmpty() ? QString() : IniValue::value(items).toString();
}

/// @return the keys that differ from their defaults and are read once by each process
QStringList checkRuntime(const CIniText &ini, Findings *findings)
{
    QStringList names;
    QStringList untilRestart;
    for (const SettingsKey &key : settingsKeys) {
        const QString name = QString::fromLatin1(key.name);
        names << name;
        const QString text = asWritten(textOf(ini, name));
        if (ini.items(name).isEmpty())
            continue;
        int value = 0;
        const QString objection = parseSetting(name, key.flag, text, key.min, key.max, &value);
        const bool isOddSwitch = key.flag && !objection.isNull();
        if (isOddSwitch && !text.isEmpty())
            findings->push_back(Finding::attention(
                "odd-switch", QStringLiteral("settings.ini, %1; считается включенным").arg(objection),
                setAdvice(name)));
        else if (!key.flag && !objection.isNull())
            findings->push_back(
                Finding::error("out-of-range",
                               QStringLiteral("settings.ini, %1; действует значение по умолчанию %2")
                                   .arg(objection)
                                   .arg(key.defaultValue),
                               setAdvice(name)));
        const bool isAtOnce = key.flag && name != QLatin1String("Debug/all");
        if (!isAtOnce && objection.isNull() && value != key.defaultValue)
            untilRestart << name;
    }
    checkUnknown(QStringLiteral("settings.ini"), ini, names, findings);
    return untilRestart;
}

QStringList checkMessenger(const CIniText &ini, Findings *findings)
{
    QStringList names;
    QStringList untilRestart;
    for (const GeneralSettingsKey &key : generalSettingsKeys()) {
        names << key.name;
        const QString objection = GeneralSettings::refusal(key.name, textOf(ini, key.name));
        if (ini.items(key.name).isEmpty())
            continue;
        if (!objection.isNull())
            findings->push_back(
                Finding::error("out-of-range",
                               QStringLiteral("generalSettings.ini, %1; действует значение по умолчанию %2")
                                   .arg(objection, key.defaultValue),
                               setAdvice(key.name)));
        const bool isReadOnce =
            key.name.startsWith(QLatin1String("Journal/")) || key.name == QLatin1String("Abonent/name");
        if (isReadOnce && key.value != key.defaultValue)
            untilRestart << key.name;
    }
    checkUnknown(QStringLiteral("generalSettings.ini"), ini, names, findings);
    return untilRestart;
}

/// A file that was changed after the resident had begun may hold values that it does not know of.
void checkForce(const HealthContext &around, const QString &path, const QStringList &untilRestart,
                Findings *findings)
{
    const QDateTime changed = QFileInfo(path).lastModified();
    constexpr int startSeconds = 5; // within which the resident itself fills the file
    if (!around.resident.started.isValid() || untilRestart.isEmpty() ||
        changed <= around.resident.started.addSecs(startSeconds))
        return;
    findings->push_back(Finding::attention(
        "not-in-force",
        QStringLiteral("%1 изменен %2, после запуска listen; до его перезапуска могут не действовать: %3")
            .arg(QFileInfo(path).fileName(), changed.toString(QStringLiteral("dd.MM.yyyy hh:mm:ss")),
                 untilRestart.join(QStringLiteral(", "))),
        QStringLiteral("Перезапустите abonent listen")));
}

} // namespace

Findings Checks::settings(const HealthContext &around)
{
    Findings findings;
    checkRecord(around.channel, &findings);
    CIniText ini;
    const QString runtimePath = Global::internalSettingsFilePath();
    if (readIni(runtimePath, &ini, &findings))
        checkForce(around, runtimePath, checkRuntime(ini, &findings), &findings);
    const QString messengerPath = Global::generalSettingsFilePath();
    if (readIni(messengerPath, &ini, &findings))
        checkForce(around, messengerPath, checkMessenger(ini, &findings), &findings);
    if (findings.empty())
        findings.push_back(Finding::good(
            QStringLiteral("порт %1; все значения годны и действуют").arg(around.channel.settings.port)));
    return findings;
}
