// The file channelIp.conf as the host reads it: the settings of the IP channel, and whether it is sound.
#pragma once

#include "transportIp/ipsettings.h"

#include <QByteArray>
#include <QString>

struct ChannelSettingsFile
{
    /// Reads the file, after putting back what an interrupted save has left. [any thread]
    static ChannelSettingsFile read();

    /// What the channel uses where there is no file.
    static ChannelIpSettings defaults();

    bool exists = false;
    QByteArray bytes;
    ChannelIpSettings settings = defaults(); // as the channel takes them, also from a file that is damaged
    QString error;                           // null, or why the file cannot be read
    QString damage; // null, or what is wrong with its contents: cut short, of another version
};
