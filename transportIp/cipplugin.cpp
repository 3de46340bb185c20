#include "transportIp/cipplugin.h"

#include "common/settingonce.h"
#include "transportIp/cipserver.h"
#include "transportIp/ipchannelkind.h"

#include <algorithm>

namespace {

constexpr int minTimeout = 10;

struct Rung
{
    int upTo; // the delay at which the step grows
    int step;
};

constexpr Rung ladder[] = {{30, 10}, {150, 30}, {600, 150}};
constexpr int topStep = 300;

} // namespace

int CIpPlugin::type() const
{
    return ipChannelKind;
}

QString CIpPlugin::name() const
{
    return ipChannelName();
}

CChannelServer *CIpPlugin::create() const
{
    return new CIpServer;
}

void CIpPlugin::incCallTimeout(int *timeout) const
{
    static CSettingOnce greatest(&CSettings::detailsTransportIpMaxReconnectTimeout);
    const int maxTimeout = greatest.value();
    const auto *rung = std::find_if(std::begin(ladder), std::end(ladder),
                                    [timeout](const Rung &each) { return *timeout < each.upTo; });
    const int step = rung == std::end(ladder) ? topStep : rung->step;
    // A host may keep any number: compare before adding, so that a huge one does not overflow.
    *timeout = *timeout > maxTimeout - step ? maxTimeout : *timeout + step;
}

void CIpPlugin::decCallTimeout(int *timeout) const
{
    const auto *rung = std::find_if(std::begin(ladder), std::end(ladder),
                                    [timeout](const Rung &each) { return *timeout <= each.upTo; });
    const int step = rung == std::end(ladder) ? topStep : rung->step;
    *timeout = *timeout < minTimeout + step ? minTimeout : *timeout - step;
}
