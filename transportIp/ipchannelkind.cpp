#include "transportIp/ipchannelkind.h"

QString ipChannelName()
{
    return QStringLiteral("IP-канал");
}

QString ipConnectionLabel(int connectionId)
{
    return QStringLiteral("%1 %2").arg(ipChannelName(), QString::number(connectionId));
}
