// The settings of the IP channel that are in force in this process.
#pragma once

#include "transportIp/ipsettings.h"

/// Filled by the server from `channelIp.conf`; the server and the channels go by it.
///
/// Others may read it when no server runs. While one does, use the functions below: the server
/// rewrites it under the connections' eyes.
extern RUNTIME_EXPORT ChannelIpSettings gIpSettings;

namespace CurrentIpSettings {

/// @return a copy, each field as it was last published [any thread]
ChannelIpSettings all();

/// @return KiB [any thread]
int blockSizeKb();

/// Makes @a settings the ones in force, field by field. [any thread]
void publish(const ChannelIpSettings &settings);

} // namespace CurrentIpSettings
