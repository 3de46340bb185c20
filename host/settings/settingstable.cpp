#include "host/settings/settingstable.h"

#include "common/csettings.h"
#include "common/global.h"
#include "common/initext.h"
#include "common/settingsfile.h"
#include "host/delivery/generalsettings.h"
#include "host/text/reasons.h"

#include <cerrno>

namespace {

QString valueText(bool isFlag, int value)
{
    return !isFlag ? QString::number(value) : value ? QStringLiteral("true") : QStringLiteral("false");
}

QString rangeText(bool isFlag, int min, int max)
{
    return isFlag ? QStringLiteral("true, false") : QStringLiteral("%1..%2").arg(min).arg(max);
}

SettingsOfFile ofRecord()
{
    const ChannelSettingsFile file = ChannelSettingsFile::read();
    const ChannelIpSettings normal = ChannelSettingsFile::defaults();
    SettingsOfFile result{
        Global::channelIpSettingsFilePath(), {}, file.error.isNull() ? file.damage : file.error};
    for (const RecordKey &key : recordKeys) {
        const bool isFlag = !key.number;
        result.settings.push_back({QString::fromLatin1(key.name),
                                   valueText(isFlag, key.valueIn(file.settings)),
                                   valueText(isFlag, key.valueIn(normal)),
                                   rangeText(isFlag, key.min, key.max), QString::fromUtf8(key.meaning)});
    }
    return result;
}

SettingsOfFile ofRuntime()
{
    SettingsOfFile result{Global::internalSettingsFilePath(), {}, QString()};
    SettingsFile::Contents contents;
    if (!SettingsFile::read(result.path, &contents))
        result.trouble =
            QStringLiteral("Не удалось прочитать %1. %2").arg(result.path, reasonOf(errno, result.path));
    else if (!CIniText(contents.text).isWellFormed())
        result.trouble = QStringLiteral("В файле %1 есть испорченные строки").arg(result.path);
    CSettings now;
    for (const SettingsKey &key : settingsKeys) {
        const int value = key.flag ? (now.*key.flag)() : (now.*key.number)();
        result.settings.push_back({QString::fromLatin1(key.name), valueText(key.flag, value),
                                   valueText(key.flag, key.defaultValue),
                                   rangeText(key.flag, key.min, key.max), QString::fromUtf8(key.meaning)});
    }
    return result;
}

SettingsOfFile ofMessenger()
{
    SettingsOfFile result{Global::generalSettingsFilePath(), {}, QString()};
    GeneralSettings::load(&result.trouble);
    for (const GeneralSettingsKey &key : generalSettingsKeys())
        result.settings.push_back({key.name, key.value, key.defaultValue, key.range, key.meaning});
    return result;
}

} // namespace

std::vector<SettingsOfFile> allSettings()
{
    return {ofRecord(), ofRuntime(), ofMessenger()};
}

QStringList settingAssignments()
{
    QStringList names;
    for (const RecordKey &key : recordKeys)
        names << QLatin1String(key.name) + QLatin1Char('=');
    for (const SettingsKey &key : settingsKeys)
        names << QLatin1String(key.name) + QLatin1Char('=');
    for (const GeneralSettingsKey &key : generalSettingsKeys())
        names << key.name + QLatin1Char('=');
    return names;
}

QString parseSetting(const QString &name, bool isFlag, const QString &text, int min, int max, int *value)
{
    const QString word = text.toLower();
    if (isFlag) {
        const bool isTrue = word == QLatin1String("true") || word == QLatin1String("1");
        if (!isTrue && word != QLatin1String("false") && word != QLatin1String("0"))
            return QStringLiteral("%1: нужно true или false, а не '%2'").arg(name, text);
        *value = isTrue;
        return QString();
    }
    bool isNumber = false;
    *value = word.toInt(&isNumber, word.startsWith(QLatin1String("0x")) ? 16 : 10); // 0x7777 as well
    if (!isNumber || *value < min || *value > max)
        return QStringLiteral("%1: нужно число от %2 до %3, а не '%4'")
            .arg(name, QString::number(min), QString::number(max), text);
    return QString();
}
