// A channel library that has every entry point but instance().
#include "common/exports.h"
#include "interfaces/pluginentry.h"

extern "C" {
RUNTIME_EXPORT int apiVersion()
{
    return channelApiVersion;
}
RUNTIME_EXPORT void initDebug(DebugData *) {}
RUNTIME_EXPORT void deleteInstance(CChannelPlugin *) {}
}
