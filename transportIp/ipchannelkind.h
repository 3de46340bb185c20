// What the IP kind of channel is called and numbered, once for all of its rooms.
#pragma once

#include <QString>

/// The number of the kind: CChannelPlugin::type(), CChannel::kind, the monitor's `kind`.
constexpr int ipChannelKind = 1;

/// @return "IP-канал"
QString ipChannelName();

/// @return the name of one connection in monitor, journal and protocol, such as "IP-канал 3"
QString ipConnectionLabel(int connectionId);
