// Waiting, while everything on the peers' side of a load test goes on in this thread.
#pragma once

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>

#include <algorithm>
#include <functional>

/// Of a clock that only goes forward.
inline qint64 nowUs()
{
    return QDeadlineTimer::current(Qt::PreciseTimer).deadlineNSecs() / 1000;
}

/// Runs the event loop for @a ms, or until the condition holds. @return whether it does
///
/// It pauses as long as it works: with thousands of sockets each turn is dear, and the server wants to run,
/// too.
inline bool runLoop(int ms, const std::function<bool()> &until = {})
{
    const qint64 end = nowUs() + ms * 1000ll;
    qint64 begun = nowUs();
    for (; !until || !until(); begun = nowUs()) {
        if (begun > end)
            return false;
        QCoreApplication::processEvents();
        QThread::usleep(static_cast<unsigned long>(std::clamp<qint64>(nowUs() - begun, 100, 5000)));
    }
    return true;
}
