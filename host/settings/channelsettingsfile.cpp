#include "host/settings/channelsettingsfile.h"

#include "common/global.h"
#include "host/text/reasons.h"

#include <QFile>

#include <cerrno>

ChannelIpSettings ChannelSettingsFile::defaults()
{
    ChannelIpSettings settings;
    settings.blockSizeKb = 64;
    return settings;
}

ChannelSettingsFile ChannelSettingsFile::read()
{
    ChannelSettingsFile result;
    const QString path = Global::channelIpSettingsFilePath();
    result.error = Global::recoverSaved(path);
    QFile file(path);
    if (!result.error.isNull() || !file.exists())
        return result;

    result.exists = true;
    if (!file.open(QIODevice::ReadOnly)) {
        result.error = QStringLiteral("Не удалось прочитать %1. %2").arg(path, reasonOf(errno, path));
        return result;
    }
    result.bytes = file.readAll();
    const QString damage = result.settings.fromByteArray(result.bytes);
    if (!damage.isEmpty())
        result.damage = QStringLiteral("Файл %1 непригоден: %2").arg(path, damage);
    return result;
}
