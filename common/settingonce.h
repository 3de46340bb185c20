// A number of the settings that is read once per process.
#pragma once

#include "common/csettings.h"

#include <atomic>

/// What the settings say when the process first asks; later changes take effect in a new process.
///
/// Constant initialisation and no guard: reading may speak to a host whose handler of messages asks in turn.
/// [any thread]; not while holding a lock of ours.
class CSettingOnce
{
public:
    using Getter = int (CSettings::*)(); // never gives a negative number

    explicit constexpr CSettingOnce(Getter theGetter) : getter(theGetter) {}

    int value()
    {
        int known = number.load(std::memory_order_relaxed);
        if (known >= 0)
            return known;
        const int read = (CSettings().*getter)();
        // Threads that come at once may read different numbers: the first one's counts for all.
        return number.compare_exchange_strong(known, read, std::memory_order_relaxed) ? read : known;
    }

private:
    const Getter getter;
    std::atomic<int> number{-1};
};
