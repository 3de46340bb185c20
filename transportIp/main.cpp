#include "transportIp/main.h"

#include "common/debugdata.h"

int apiVersion()
{
    return channelApiVersion;
}

void initDebug(DebugData *data)
{
    LoggerData::initDebug(data);
}

CChannelPlugin *instance()
{
    return new CIpPlugin;
}

void deleteInstance(CChannelPlugin *plugin)
{
    delete plugin;
}
