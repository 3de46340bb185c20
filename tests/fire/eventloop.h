// Waiting, while everything on the peers' side of a load test goes on in this thread.
#pragma once

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QTimer>

#include <functional>

/// Runs the event loop for @a ms, or until the condition holds. @return whether it does
inline bool runLoop(int ms, const std::function<bool()> &until = {})
{
    const QDeadlineTimer end(ms);
    QTimer look;
    look.start(1);
    while (!until || !until()) {
        if (end.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

/// Of a clock that only goes forward.
inline qint64 nowUs()
{
    return QDeadlineTimer::current(Qt::PreciseTimer).deadlineNSecs() / 1000;
}
