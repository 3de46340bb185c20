#include "host/conversation/cunnamedcallers.h"

#include <algorithm>

void CUnnamedCallers::add(CUnnamedCaller *caller, const QString &origin)
{
    const std::lock_guard lock(mutex);
    const auto ofOrigin = std::count_if(list.begin(), list.end(),
                                        [&origin](const Entry &entry) { return entry.origin == origin; });
    if (ofOrigin >= perOrigin)
        dropOldest(&origin);
    else if (int(list.size()) >= inAll)
        dropOldest(nullptr);
    list.push_back({caller, origin});
}

void CUnnamedCallers::remove(CUnnamedCaller *caller)
{
    const std::lock_guard lock(mutex);
    list.remove_if([caller](const Entry &entry) { return entry.caller == caller; });
}

void CUnnamedCallers::dropOldest(const QString *origin)
{
    const auto oldest = std::find_if(list.begin(), list.end(), [origin](const Entry &entry) {
        return !origin || entry.origin == *origin;
    });
    if (oldest == list.end())
        return;
    oldest->caller->giveWay();
    list.erase(oldest);
}
