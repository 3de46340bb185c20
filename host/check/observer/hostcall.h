// A call of the host's code: timed, and no exception may come out of it.
#pragma once

#include "host/check/cstopwatch.h"
#include "host/check/observer/report.h"

/// @param rule broken when the call sleeps for long, kept when it does not
/// @return what the call returns, or the default when it throws
template <typename Call>
auto hostCall(const char *rule, const QString &what, const Call &call) -> decltype(call())
{
    constexpr int longMs = 1000; // asleep, so that a busy machine does not count
    struct Judge
    {
        ~Judge()
        {
            const int ms = watch.asleep();
            Report::judge(rule, ms <= longMs, QStringLiteral("%1 держит канал %2 мс").arg(what).arg(ms));
        }
        const char *const rule;
        const QString what;
        const CStopwatch watch;
    };
    try {
        const Judge judge{rule, what, {}};
        Report::kept("no-exception");
        return call();
    } catch (...) {
        Report::broken("no-exception", QStringLiteral("%1 закончился исключением").arg(what));
        return decltype(call())();
    }
}
