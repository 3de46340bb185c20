// The loop-back example below the faulty layer.
#include "common/exports.h"
#include "tests/validator/faultylayer.h"

#include <QLibrary>

extern "C" {

RUNTIME_EXPORT int apiVersion()
{
    QLibrary good(QStringLiteral(LOOPBACK_FILE));
    FaultyLayer::over(reinterpret_cast<ApiVersionFunction>(good.resolve(apiVersionSymbol)),
                      reinterpret_cast<InitDebugFunction>(good.resolve(initDebugSymbol)),
                      reinterpret_cast<InstanceFunction>(good.resolve(instanceSymbol)),
                      reinterpret_cast<DeleteInstanceFunction>(good.resolve(deleteInstanceSymbol)));
    return FaultyLayer::apiVersion();
}
RUNTIME_EXPORT void initDebug(DebugData *data)
{
    FaultyLayer::initDebug(data);
}
#ifndef WITHOUT_INSTANCE
RUNTIME_EXPORT CChannelPlugin *instance()
{
    return FaultyLayer::instance();
}
#endif
RUNTIME_EXPORT void deleteInstance(CChannelPlugin *plugin)
{
    FaultyLayer::deleteInstance(plugin);
}
}
