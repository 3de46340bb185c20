#include "transportIp/cconnectiondispatcher.h"

#include "common/terminationguard.h"

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QThread>
#include <QTimerEvent>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <utility>

#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constexpr qint64 nsPerMs = 1000000;
constexpr qint64 nsPerSecond = 1000 * nsPerMs;
constexpr qint64 restNs = 10 * nsPerMs; // of a wait that no other thread can end
constexpr int maxTurnsWithoutLook = 4;  // a busy writer still hears of its sockets

std::atomic<int> toCome{0}; // wake-up descriptors, one for each dispatcher without

qint64 now()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return qint64(time.tv_sec) * nsPerSecond + time.tv_nsec;
}

struct PollEvents
{
    short wanted;
    short activating; // also the conditions that poll() reports unasked
};

PollEvents pollEvents(QSocketNotifier::Type type)
{
    switch (type) {
    case QSocketNotifier::Read:
        return {POLLIN, POLLIN | POLLHUP | POLLERR};
    case QSocketNotifier::Write:
        return {POLLOUT, POLLOUT | POLLHUP | POLLERR};
    case QSocketNotifier::Exception:
        return {POLLPRI, POLLPRI | POLLHUP | POLLERR};
    }
    return {0, 0};
}

} // namespace

CConnectionDispatcher::CConnectionDispatcher()
{
    ++toCome;
}

CConnectionDispatcher::~CConnectionDispatcher()
{
    const CTerminationGuard guard;
    if (wakeUpFd >= 0)
        ::close(wakeUpFd);
    else
        --toCome;
}

int CConnectionDispatcher::descriptorsToCome()
{
    return toCome;
}

void CConnectionDispatcher::release(const CDirectSocket *socket)
{
    if (directSocket == socket)
        directSocket = nullptr;
}

bool CConnectionDispatcher::processEvents(QEventLoop::ProcessEventsFlags flags)
{
    interrupted = false;
    if (directSocket)
        directSocket->turnBegins();
    Q_EMIT awake();
    QCoreApplication::sendPostedEvents();

    const bool withTimers = !flags.testFlag(QEventLoop::X11ExcludeTimers);
    const bool withNotifiers = !flags.testFlag(QEventLoop::ExcludeSocketNotifiers);
    const bool again = std::exchange(turnAgain, false);
    const bool wait = flags.testFlag(QEventLoop::WaitForMoreEvents) && !again;
    if (wait)
        Q_EMIT aboutToBlock();
    if (interrupted)
        return false;

    int handled = again ? 1 : 0;
    if (!again || ++turnsWithoutLook == maxTurnsWithoutLook) {
        turnsWithoutLook = 0;
        const qint64 timeoutNs = !wait ? 0 : withTimers ? nsToNextTimer() : -1;
        if (waitForSockets(withNotifiers, timeoutNs) > 0)
            handled += activateNotifiers();
        handled += drainWakeUp() ? 1 : 0;
    }
    if (withTimers)
        handled += activateTimers();
    return handled > 0;
}

bool CConnectionDispatcher::hasPendingEvents()
{
    return waitForSockets(true, 0) > 0 || nsToNextTimer() == 0;
}

void CConnectionDispatcher::registerSocketNotifier(QSocketNotifier *notifier)
{
    notifiers.push_back(notifier);
}

void CConnectionDispatcher::unregisterSocketNotifier(QSocketNotifier *notifier)
{
    const auto end = std::remove(notifiers.begin(), notifiers.end(), notifier);
    notifiers.resize(int(end - notifiers.begin()));
    std::replace(activated.begin(), activated.end(), notifier, static_cast<QSocketNotifier *>(nullptr));
}

void CConnectionDispatcher::registerTimer(int timerId, int interval, Qt::TimerType timerType, QObject *object)
{
    timers.push_back({timerId, interval, timerType, object, now() + interval * nsPerMs, timerRound});
}

bool CConnectionDispatcher::unregisterTimer(int timerId)
{
    const auto end = std::remove_if(timers.begin(), timers.end(),
                                    [timerId](const Timer &timer) { return timer.id == timerId; });
    const bool found = end != timers.end();
    timers.erase(end, timers.end());
    return found;
}

bool CConnectionDispatcher::unregisterTimers(QObject *object)
{
    const auto end = std::remove_if(timers.begin(), timers.end(),
                                    [object](const Timer &timer) { return timer.object == object; });
    const bool found = end != timers.end();
    timers.erase(end, timers.end());
    return found;
}

QList<QAbstractEventDispatcher::TimerInfo> CConnectionDispatcher::registeredTimers(QObject *object) const
{
    QList<TimerInfo> result;
    for (const Timer &timer : timers) {
        if (timer.object == object)
            result.append(TimerInfo(timer.id, timer.interval, timer.type));
    }
    return result;
}

int CConnectionDispatcher::remainingTime(int timerId)
{
    for (const Timer &timer : timers) {
        if (timer.id == timerId)
            return int(std::max<qint64>(0, timer.due - now()) / nsPerMs);
    }
    return -1;
}

void CConnectionDispatcher::wakeUp()
{
    if (QThread::currentThread() == thread()) {
        turnAgain = true;
        return;
    }
    // Posting an event holds a lock of Qt's, and write() is a point at which a thread can be ended.
    const CTerminationGuard guard;
    if (wakeUpPending.exchange(true) || wakeUpFd < 0)
        return; // who makes the descriptor looks at the flag after that
    const quint64 one = 1;
    while (::write(wakeUpFd, &one, sizeof one) < 0 && errno == EINTR)
        ;
}

void CConnectionDispatcher::interrupt()
{
    interrupted = true;
    wakeUp();
}

void CConnectionDispatcher::flush() {}

/// @return whether other threads can end a wait from now on
bool CConnectionDispatcher::makeWakeUp()
{
    if (wakeUpFd >= 0)
        return true;
    wakeUpFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeUpFd < 0)
        return false;
    --toCome;
    return true;
}

/// Forgets wake-ups so far. What they announced is handled before the next wait.
bool CConnectionDispatcher::drainWakeUp()
{
    const bool isWritten = polled.front().revents != 0;
    quint64 count = 0;
    while (isWritten && ::read(wakeUpFd, &count, sizeof count) < 0 && errno == EINTR)
        ;
    return wakeUpPending.exchange(false) || isWritten;
}

/// @param timeoutNs -1 to wait without a limit
/// @return as poll(); a signal counts as nothing ready
int CConnectionDispatcher::waitForSockets(bool withNotifiers, qint64 timeoutNs)
{
    if (timeoutNs != 0) {
        const bool canBeWoken = makeWakeUp();
        if (wakeUpPending)
            timeoutNs = 0;
        else if (!canBeWoken)
            timeoutNs = timeoutNs < 0 ? restNs : std::min(timeoutNs, restNs);
    }
    polled.clear();
    polled.push_back({wakeUpFd, POLLIN, 0});
    if (withNotifiers) {
        for (const QSocketNotifier *notifier : notifiers)
            polled.push_back({int(notifier->socket()), pollEvents(notifier->type()).wanted, 0});
    }
    const timespec timeout = {time_t(timeoutNs / nsPerSecond), long(timeoutNs % nsPerSecond)};
    return ::ppoll(polled.data(), nfds_t(polled.size()), timeoutNs < 0 ? nullptr : &timeout, nullptr);
}

int CConnectionDispatcher::activateNotifiers()
{
    activated.clear();
    int handled = 0;
    for (int i = 1; i < polled.size(); ++i) {
        QSocketNotifier *notifier = notifiers[i - 1];
        const bool hasBytesOnly = polled[i].revents == POLLIN && notifier->type() == QSocketNotifier::Read;
        if (hasBytesOnly && directSocket && directSocket->keepsFromQt(notifier->socket()))
            ++handled; // the next turn begins with a look
        else if (polled[i].revents & (pollEvents(notifier->type()).activating | POLLNVAL))
            activated.push_back(notifier);
    }

    QEvent event(QEvent::SockAct);
    for (int i = 0; i < activated.size(); ++i) {
        if (QSocketNotifier *notifier = std::exchange(activated[i], nullptr)) {
            QCoreApplication::sendEvent(notifier, &event);
            ++handled;
        }
    }
    return handled;
}

int CConnectionDispatcher::activateTimers()
{
    if (timers.empty())
        return 0;
    const quint64 round = ++timerRound;
    const qint64 time = now();
    int handled = 0;
    for (;;) {
        // A handler may add, remove and restart timers, so look anew each time.
        const auto due = std::find_if(timers.begin(), timers.end(), [round, time](const Timer &timer) {
            return timer.round < round && timer.due <= time;
        });
        if (due == timers.end())
            return handled;
        due->round = round;
        due->due = time + due->interval * nsPerMs;
        QTimerEvent event(due->id);
        QCoreApplication::sendEvent(due->object, &event);
        ++handled;
    }
}

qint64 CConnectionDispatcher::nsToNextTimer() const
{
    if (timers.empty())
        return -1;
    const auto next = std::min_element(timers.begin(), timers.end(),
                                       [](const Timer &a, const Timer &b) { return a.due < b.due; });
    return std::max<qint64>(0, next->due - now());
}
