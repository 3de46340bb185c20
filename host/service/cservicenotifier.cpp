#include "host/service/cservicenotifier.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <limits>
#include <utility>

namespace {

constexpr int readyPollMs = 100;
constexpr int statusMs = 5000;
constexpr int delayUs = 30 * 1000 * 1000; // by how much a reason moves the manager's limit of the start

void tell(const QString &what)
{
    ::sd_notify(0, what.toUtf8().constData());
}

/// A text as it may stand in a message: a line feed would begin another assignment.
QString status(QString text)
{
    return QStringLiteral("STATUS=") + text.replace(QLatin1Char('\n'), QLatin1Char(' '));
}

/// @return milliseconds between signs of life, half of what the manager allows; 0: it wants none
int lifeMs()
{
    uint64_t limitUs = 0;
    if (::sd_watchdog_enabled(0, &limitUs) <= 0)
        return 0;
    return int(std::clamp<uint64_t>(limitUs / 2000, 1, std::numeric_limits<int>::max()));
}

} // namespace

CServiceNotifier::CServiceNotifier() : isManaged(!qEnvironmentVariableIsEmpty("NOTIFY_SOCKET"))
{
    connect(&lookTimer, &QTimer::timeout, this, &CServiceNotifier::look);
    connect(&lifeTimer, &QTimer::timeout, this, [] { tell(QStringLiteral("WATCHDOG=1")); });
}

void CServiceNotifier::delay(const QString &reason)
{
    if (isManaged)
        tell(status(reason) + QStringLiteral("\nEXTEND_TIMEOUT_USEC=%1").arg(delayUs));
}

void CServiceNotifier::begin(std::function<State()> ask)
{
    if (!isManaged)
        return;
    state = std::move(ask);
    lookTimer.start(readyPollMs);
    if (const int interval = lifeMs())
        lifeTimer.start(interval);
}

void CServiceNotifier::stopping(const QString &reason)
{
    if (!isManaged)
        return;
    lookTimer.stop();
    tell(status(reason) + QStringLiteral("\nSTOPPING=1"));
}

void CServiceNotifier::look()
{
    const State now = state();
    const bool isFirst = now.isReady && !isReady;
    if (isFirst) {
        isReady = true;
        lookTimer.start(statusMs);
    }
    if (!isFirst && now.text == told)
        return;
    told = now.text;
    tell(status(now.text) + QLatin1String(isFirst ? "\nREADY=1" : ""));
}
