#include "host/check/cstopwatch.h"

#include <algorithm>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

CStopwatch::CStopwatch() : scheduledBefore(scheduledNs())
{
    clock.start();
}

int CStopwatch::asleep() const
{
    constexpr qint64 nsPerMs = 1000000;
    constexpr int worthAskingMs = 20; // the question costs a few system calls
    if (elapsed() < worthAskingMs)
        return 0;
    const qint64 scheduledNow = scheduledNs();
    if (scheduledBefore == 0 || scheduledNow == 0)
        return elapsed();
    return int(std::max<qint64>(0, elapsed() - (scheduledNow - scheduledBefore) / nsPerMs));
}

/// schedstat: nanoseconds on a processor, nanoseconds waiting for one, times scheduled.
qint64 CStopwatch::scheduledNs()
{
    const int file = ::open("/proc/thread-self/schedstat", O_RDONLY | O_CLOEXEC);
    char text[100] = {};
    long long ran = 0;
    long long waited = 0;
    if (file < 0)
        return 0;
    const bool isRead = ::read(file, text, sizeof(text) - 1) > 0;
    ::close(file);
    return isRead && std::sscanf(text, "%lld %lld", &ran, &waited) == 2 ? ran + waited : 0; // NOLINT
}
