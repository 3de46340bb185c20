// Every key of the three settings files, in one list: for the commands that show, change, carry and check
// them.
//
//   channelIp.conf        the record of the IP channel          recordKeys
//   settings.ini          switches and limits of the runtime    settingsKeys (common/csettings.h)
//   generalSettings.ini   what the messenger goes by            generalSettingsKeys() (delivery)
#pragma once

#include "host/settings/channelsettingsfile.h"

#include <QStringList>

#include <vector>

/// A key of the record channelIp.conf.
struct RecordKey
{
    const char *name;
    int ChannelIpSettings::*number; // null: canCheckOnline
    int min;
    int max;
    const char *meaning;

    int valueIn(const ChannelIpSettings &settings) const
    {
        return number ? settings.*number : settings.canCheckOnline;
    }
};

inline constexpr RecordKey recordKeys[] = {
    {"port", &ChannelIpSettings::port, 1, 65535, "порт TCP, на котором принимаются вызовы"},
    {"maxConnections", &ChannelIpSettings::maxConnections, 1, 100000,
     "сколько соединений считать полной загрузкой канала"},
    {"blockSizeKb", &ChannelIpSettings::blockSizeKb, 1, 1024,
     "сколько КБайт держать в очереди на передачу одного соединения"},
    {"canCheckOnline", nullptr, 0, 1, "можно ли вызывать абонентов только для проверки связи"},
};

/// A key for people.
struct Setting
{
    QString name;
    QString value; // that counts at present
    QString defaultValue;
    QString range;
    QString meaning;
};

struct SettingsOfFile
{
    QString path;
    std::vector<Setting> settings;
    QString trouble; // why the file gives other values than it should, in Russian; null when it does not
};

/// All of them, file by file, in the order of the tables. Missing keys of settings.ini are filled in.
std::vector<SettingsOfFile> allSettings();

/// "port=" and so on, as `settings set` takes them.
QStringList settingAssignments();

/// Reads a value of the record or of settings.ini as people write it: a number, also 0x..., true or false.
/// @return null on success, else what is wrong, in Russian
QString parseSetting(const QString &name, bool isFlag, const QString &text, int min, int max, int *value);
