// The observer: a channel kind that holds its host to the contract. `abonent check --host` puts it into
// an installation of its own together with the host.
#include "common/exports.h"
#include "common/logger.h"
#include "host/check/observer/cobserverserver.h"
#include "host/check/observer/report.h"
#include "interfaces/pluginentry.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>

namespace {

std::atomic<bool> isVersionAsked{false};
std::atomic<bool> isLogBound{false};
std::atomic<int> pluginsAlive{0};
std::atomic<bool> isDeletingPlugin{false};

constexpr int leastDelay = 1;
constexpr int mostDelay = 2;

class CObserverPlugin final : public CChannelPlugin
{
public:
    CObserverPlugin() { ++pluginsAlive; }
    ~CObserverPlugin() override
    {
        --pluginsAlive;
        Report::judge("delete-instance", isDeletingPlugin,
                      QStringLiteral("Объект канала удален не функцией deleteInstance()"));
    }
    int type() const override { return observerKind; }
    QString name() const override { return QStringLiteral("Наблюдатель"); }
    CChannelServer *create() const override { return new CObserverServer; }
    void incCallTimeout(int *timeout) const override
    {
        *timeout = std::clamp(*timeout + 1, leastDelay, mostDelay);
    }
    void decCallTimeout(int *timeout) const override
    {
        *timeout = std::clamp(*timeout - 1, leastDelay, mostDelay);
    }
};

void judgeAtExit()
{
    CObserverServer::judgeLeft();
    if (CObserverServer::areAllStopped())
        Report::judge("delete-instance", pluginsAlive == 0,
                      QStringLiteral("К концу программы объект канала не отдан deleteInstance()"));
}

} // namespace

extern "C" {

RUNTIME_EXPORT int apiVersion()
{
    isVersionAsked = true;
    return channelApiVersion;
}
RUNTIME_EXPORT void initDebug(DebugData *data)
{
    Report::judge("version-first", isVersionAsked, QStringLiteral("initDebug() вызвана раньше apiVersion()"));
    isLogBound = true;
    LoggerData::initDebug(data);
}
RUNTIME_EXPORT CChannelPlugin *instance()
{
    static const bool isAtExitSet = std::atexit(judgeAtExit) == 0;
    Q_UNUSED(isAtExitSet)
    Report::judge("version-first", isVersionAsked, QStringLiteral("instance() вызвана раньше apiVersion()"));
    Report::judge("log-first", isLogBound, QStringLiteral("instance() вызвана раньше initDebug()"));
    return new CObserverPlugin;
}
RUNTIME_EXPORT void deleteInstance(CChannelPlugin *plugin)
{
    isDeletingPlugin = true;
    delete plugin;
    isDeletingPlugin = false;
}
}
