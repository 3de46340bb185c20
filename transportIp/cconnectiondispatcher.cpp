#include "transportIp/cconnectiondispatcher.h"

#include "common/messagequeue.h"
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

// Of QtCore, for those who write dispatchers: how many events wait for the current thread.
extern uint qGlobalPostedEventsCount();

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
    const int wakeUpsBefore = wakeUps;
    QCoreApplication::sendPostedEvents();

    const bool withTimers = !flags.testFlag(QEventLoop::X11ExcludeTimers);
    const bool withNotifiers = !flags.testFlag(QEventLoop::ExcludeSocketNotifiers);
    const bool again = std::exchange(turnAgain, false);
    const bool mayWait = flags.testFlag(QEventLoop::WaitForMoreEvents) && !again && !interrupted;
    if (mayWait && wakeUps == wakeUpsBefore)
        Q_EMIT aboutToBlock(); // whose slots may wake the loop, too
    if (interrupted)
        return false;

    const bool woken = std::exchange(wakeUps, 0) > 0;
    int handled = woken || again ? 1 : 0;
    if (!again || woken || ++turnsWithoutLook == maxTurnsWithoutLook) {
        turnsWithoutLook = 0;
        const bool waits = mayWait && !woken && !turnAgain;
        const qint64 timeoutNs = !waits ? 0 : withTimers ? nsToNextTimer() : -1;
        const Polled polled = look(withNotifiers, timeoutNs);
        handled += drainWakeUp(polled.front()) ? 1 : 0;
        handled += activateSockets(polled);
    }
    if (withTimers)
        handled += activateTimers();
    return handled > 0;
}

bool CConnectionDispatcher::hasPendingEvents()
{
    if (qGlobalPostedEventsCount() > 0 || nsToNextTimer() == 0)
        return true;
    const Polled polled = look(true, 0);
    return std::any_of(polled.begin(), polled.end(), [](const pollfd &one) { return one.revents != 0; });
}

void CConnectionDispatcher::registerSocketNotifier(QSocketNotifier *notifier)
{
    notifiers.push_back(notifier);
}

void CConnectionDispatcher::unregisterSocketNotifier(QSocketNotifier *notifier)
{
    for (auto *list : {&notifiers, &pending})
        list->resize(int(std::remove(list->begin(), list->end(), notifier) - list->begin()));
}

void CConnectionDispatcher::registerTimer(int timerId, int interval, Qt::TimerType timerType, QObject *object)
{
    const qint64 due = std::max(now() + interval * nsPerMs, roundTime + 1);
    arm({timerId, interval, timerType, object, due, ++timersMade});
}

void CConnectionDispatcher::arm(const Timer &timer)
{
    const auto isBefore = [](const Timer &a, const Timer &b) { return a.due < b.due; };
    timers.insert(std::upper_bound(timers.begin(), timers.end(), timer, isBefore), timer);
}

bool CConnectionDispatcher::unregisterTimer(int timerId)
{
    return removeTimers([timerId](const Timer &timer) { return timer.id == timerId; });
}

bool CConnectionDispatcher::unregisterTimers(QObject *object)
{
    return removeTimers([object](const Timer &timer) { return timer.object == object; });
}

/// @return whether there was one
template <typename Condition>
bool CConnectionDispatcher::removeTimers(Condition condition)
{
    const auto end = std::remove_if(timers.begin(), timers.end(), condition);
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
            return int((std::max<qint64>(0, timer.due - now()) + nsPerMs - 1) / nsPerMs);
    }
    return -1;
}

void CConnectionDispatcher::wakeUp()
{
    if (QThread::currentThread() == thread()) {
        ++wakeUps;
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
bool CConnectionDispatcher::drainWakeUp(const pollfd &wakeUp)
{
    const bool isWritten = wakeUp.revents != 0;
    quint64 count = 0;
    while (isWritten && ::read(wakeUp.fd, &count, sizeof count) < 0 && errno == EINTR)
        ;
    return wakeUpPending.exchange(false) || isWritten;
}

/// @param timeoutNs -1 to wait without a limit
CConnectionDispatcher::Polled CConnectionDispatcher::look(bool withNotifiers, qint64 timeoutNs)
{
    if (timeoutNs != 0) {
        const bool canBeWoken = makeWakeUp();
        if (wakeUpPending)
            timeoutNs = 0;
        else if (!canBeWoken)
            timeoutNs = timeoutNs < 0 ? restNs : std::min(timeoutNs, restNs);
    }
    Polled polled;
    polled.push_back({wakeUpFd, POLLIN, 0});
    polled.push_back(withNotifiers && directSocket ? directSocket->wanted() : pollfd{-1, 0, 0});
    if (withNotifiers) {
        for (const QSocketNotifier *notifier : qAsConst(notifiers)) {
            const int descriptor = int(notifier->socket());
            const bool isDirect = notifier->type() == QSocketNotifier::Read && descriptor == polled[1].fd;
            polled.push_back({isDirect ? -1 : descriptor, pollEvents(notifier->type()).wanted, 0});
        }
    }
    const timespec timeout = {time_t(timeoutNs / nsPerSecond), long(timeoutNs % nsPerSecond)};
    if (::ppoll(polled.data(), nfds_t(polled.size()), timeoutNs < 0 ? nullptr : &timeout, nullptr) < 0) {
        for (pollfd &one : polled)
            one.revents = 0; // a signal: nothing is ready
    }
    return polled;
}

/// @return how many sockets something has happened to
int CConnectionDispatcher::activateSockets(const Polled &polled)
{
    // First all that was seen, then the handlers: they change the list, and may turn a loop of their own.
    QVarLengthArray<QSocketNotifier *, 4> invalid;
    for (int i = 2; i < polled.size(); ++i) {
        QSocketNotifier *notifier = notifiers[i - 2];
        if (polled[i].revents & POLLNVAL)
            invalid.push_back(notifier);
        else if (polled[i].revents & pollEvents(notifier->type()).activating && !pending.contains(notifier))
            pending.push_back(notifier);
    }
    for (QSocketNotifier *notifier : qAsConst(invalid))
        disable(notifier);

    int handled = 0;
    if (polled[1].revents != 0 && directSocket) {
        directSocket->happened(polled[1].revents);
        ++handled;
        if (directSocket->wanted().fd < 0)
            handOver(polled[1].fd);
    }
    QEvent event(QEvent::SockAct);
    while (!pending.isEmpty()) {
        QSocketNotifier *notifier = pending.front();
        pending.erase(pending.begin());
        QCoreApplication::sendEvent(notifier, &event);
        ++handled;
    }
    return handled;
}

/// Has Qt read from a descriptor that has been the direct socket's.
void CConnectionDispatcher::handOver(int descriptor)
{
    for (QSocketNotifier *notifier : qAsConst(notifiers)) {
        if (notifier->socket() == descriptor && notifier->type() == QSocketNotifier::Read)
            pending.push_back(notifier);
    }
}

/// A notifier whose descriptor has been closed would keep the loop from ever waiting.
void CConnectionDispatcher::disable(QSocketNotifier *notifier)
{
    if (!notifiers.contains(notifier))
        return; // gone through the message about another one
    notifier->setEnabled(false);
    Messages::say(QtWarningMsg, QStringLiteral("QSocketNotifier: descriptor %1 is closed, notifier disabled")
                                    .arg(notifier->socket()));
}

/// Fires what is due now, each timer once. One whose handler is running is moved on, but not fired.
int CConnectionDispatcher::activateTimers()
{
    if (timers.empty())
        return 0;
    const qint64 time = now();
    roundTime = time;
    int handled = 0;
    while (!timers.empty() && timers.front().due <= time) {
        const Timer timer = timers.front();
        timers.erase(timers.begin());
        Timer next = timer;
        next.isRunning = true;
        // From the last due time, lest they drift. Later than this round, in which it had its turn.
        next.due += timer.interval * nsPerMs;
        if (next.due <= time)
            next.due = time + std::max<qint64>(1, timer.interval * nsPerMs);
        arm(next);
        // Else who processes events as long as there are some would never end.
        if (timer.interval > 0)
            ++handled;
        if (timer.isRunning)
            continue;

        QTimerEvent event(timer.id);
        QCoreApplication::sendEvent(timer.object, &event);
        const auto same = std::find_if(timers.begin(), timers.end(),
                                       [&timer](const Timer &one) { return one.number == timer.number; });
        if (same != timers.end())
            same->isRunning = false;
    }
    return handled;
}

qint64 CConnectionDispatcher::nsToNextTimer() const
{
    const auto next =
        std::find_if(timers.begin(), timers.end(), [](const Timer &timer) { return !timer.isRunning; });
    return next == timers.end() ? -1 : std::max<qint64>(0, next->due - now());
}
