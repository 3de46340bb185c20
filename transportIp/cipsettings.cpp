#include "transportIp/cipsettings.h"

ChannelIpSettings gIpSettings;

namespace CurrentIpSettings {
namespace {

// The record is a plain one by contract, so the fields themselves are accessed atomically.
template <typename Field>
Field load(const Field &field)
{
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

template <typename Field>
void store(Field &field, Field value)
{
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}

} // namespace

ChannelIpSettings all()
{
    ChannelIpSettings settings;
    settings.canCheckOnline = load(gIpSettings.canCheckOnline);
    settings.maxConnections = load(gIpSettings.maxConnections);
    settings.port = load(gIpSettings.port);
    settings.blockSizeKb = load(gIpSettings.blockSizeKb);
    return settings;
}

int blockSizeKb()
{
    return load(gIpSettings.blockSizeKb);
}

void publish(const ChannelIpSettings &settings)
{
    store(gIpSettings.canCheckOnline, settings.canCheckOnline);
    store(gIpSettings.maxConnections, settings.maxConnections);
    store(gIpSettings.port, settings.port);
    store(gIpSettings.blockSizeKb, settings.blockSizeKb);
}

} // namespace CurrentIpSettings
