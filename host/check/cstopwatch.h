// How long a call has taken, and how much of that it has slept.
#pragma once

#include <QElapsedTimer>

/// Measures the calling thread from its construction on.
class CStopwatch
{
public:
    CStopwatch();

    /// @return milliseconds by the clock
    int elapsed() const { return int(clock.elapsed()); }

    /// @return milliseconds in which the thread neither ran nor waited for a processor: a busy machine
    /// does not lengthen them. All of the elapsed time where the system does not tell
    int asleep() const;

private:
    static qint64 scheduledNs(); // 0: the system does not tell

    QElapsedTimer clock;
    const qint64 scheduledBefore;
};
