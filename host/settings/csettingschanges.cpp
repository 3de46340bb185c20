#include "host/settings/csettingschanges.h"

#include "common/csettings.h"
#include "common/global.h"
#include "host/delivery/generalsettings.h"
#include "host/settings/settingstable.h"

#include <QFile>

namespace {

bool putBack(const ChannelSettingsFile &old)
{
    const QString path = Global::channelIpSettingsFilePath();
    return old.exists ? Global::safeSaving(path, old.bytes).isNull() : QFile::remove(path);
}

} // namespace

QString CSettingsChanges::add(const QString &assignment)
{
    if (!assignment.contains(QLatin1Char('=')))
        return QStringLiteral("Нужно КЛЮЧ=ЗНАЧЕНИЕ, а не '%1'").arg(assignment);
    const QString name = assignment.section(QLatin1Char('='), 0, 0);
    const QString text = assignment.section(QLatin1Char('='), 1);
    int value = 0;
    for (const RecordKey &key : recordKeys) {
        if (name != QLatin1String(key.name))
            continue;
        const QString error = parseSetting(name, !key.number, text, key.min, key.max, &value);
        record.emplace_back(&key, value);
        return error;
    }
    for (const SettingsKey &key : settingsKeys) {
        if (name != QLatin1String(key.name))
            continue;
        const QString error = parseSetting(name, key.flag, text, key.min, key.max, &value);
        ini.insert(name, key.flag ? QVariant(bool(value)) : QVariant(value));
        return error;
    }
    for (const GeneralSettingsKey &key : generalSettingsKeys()) {
        if (name != key.name)
            continue;
        general.emplace_back(name, text);
        return GeneralSettings::refusal(name, text);
    }
    return QStringLiteral("Нет такого ключа: %1. Все ключи показывает abonent settings show").arg(name);
}

QString CSettingsChanges::make(bool repair)
{
    QFile generalFile(Global::generalSettingsFilePath());
    const bool hadGeneral = generalFile.open(QIODevice::ReadOnly);
    const QByteArray oldGeneral = hadGeneral ? generalFile.readAll() : QByteArray();
    QString error = saveGeneral();
    if (error.isNull())
        error = makeOthers(repair);
    if (!error.isNull() && !general.empty()) {
        if (hadGeneral)
            Global::safeSaving(generalFile.fileName(), oldGeneral);
        else
            generalFile.remove();
    }
    return error;
}

QString CSettingsChanges::saveGeneral() const
{
    for (const auto &[key, text] : general) {
        const QString error = GeneralSettings::set(key, text);
        if (!error.isNull())
            return error;
    }
    return QString();
}

QString CSettingsChanges::makeOthers(bool repair)
{
    const ChannelSettingsFile old = ChannelSettingsFile::read();
    QString error = record.empty() ? QString() : saveRecord(old, repair);
    if (!error.isNull() || ini.isEmpty())
        return error;
    error = CSettings().store(ini);
    if (!error.isNull() && !record.empty() && !putBack(old))
        error += QStringLiteral(". Файл %1 уже изменен").arg(Global::channelIpSettingsFilePath());
    return error;
}

QString CSettingsChanges::saveRecord(const ChannelSettingsFile &old, bool repair) const
{
    if (!old.error.isNull())
        return old.error;
    if (!old.damage.isNull() && !repair) {
        return QStringLiteral("%1. Ничего не изменено. С параметром --repair файл записывается заново, "
                              "и неназванные ключи получают значения по умолчанию")
            .arg(old.damage);
    }
    ChannelIpSettings settings = old.damage.isNull() ? old.settings : ChannelSettingsFile::defaults();
    for (const auto &[key, value] : record) {
        if (key->number)
            settings.*key->number = value;
        else
            settings.canCheckOnline = value;
    }
    return Global::safeSaving(Global::channelIpSettingsFilePath(), settings.toByteArray());
}
