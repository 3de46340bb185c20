#include "transportIp/chostaccess.h"

#include <QElapsedTimer>
#include <QThread>

#include <limits>

namespace {
constexpr int revokedMark = std::numeric_limits<int>::min() / 2; // far below any number of uses
constexpr int revokePollMs = 1;
} // namespace

CHostAccess::Use::Use(CHostAccess &access) : counter(access.uses), isGranted(counter.fetch_add(1) >= 0) {}

CHostAccess::Use::~Use()
{
    counter.fetch_sub(1);
}

bool CHostAccess::revoke(int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    if (uses.load() >= 0)
        uses.fetch_add(revokedMark);
    while (uses.load() != revokedMark) {
        if (clock.hasExpired(timeoutMs))
            return false;
        QThread::msleep(revokePollMs);
    }
    return true;
}
