// The four functions by which a host enters the library; interfaces/pluginentry.h tells their order.
#pragma once

#include "common/exports.h"
#include "interfaces/pluginentry.h"

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
