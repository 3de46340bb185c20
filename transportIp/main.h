// The door of the library: the four functions by which a host enters it, whose order is told by
// interfaces/pluginentry.h, and CIpPlugin, which they hand out.
#pragma once

#include "common/exports.h"
#include "interfaces/pluginentry.h"
#include "transportIp/cipplugin.h"

extern "C" {

/// @return the version of the contract, 16
RUNTIME_EXPORT int apiVersion();

/// Binds the host's logging state; with null the library makes one of its own.
RUNTIME_EXPORT void initDebug(DebugData *data);

/// @return a new plug-in object that the caller owns; to be destroyed by deleteInstance()
RUNTIME_EXPORT CChannelPlugin *instance();

/// Destroys a plug-in object; null is passed over.
RUNTIME_EXPORT void deleteInstance(CChannelPlugin *plugin);
}
