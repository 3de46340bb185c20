// The event dispatcher of a connection's thread.
//
// Qt's own dispatchers end the process when they cannot get their wake-up descriptor. This one makes
// it when it first has to wait, and without it looks around every few milliseconds. It is also
// leaner: one poll() over a handful of sockets, no context of another main loop.
// Everything that runs on a Qt event loop works in it: sockets, timers, queued calls.
#pragma once

#include <QAbstractEventDispatcher>
#include <QVarLengthArray>

#include <atomic>
#include <vector>

#include <poll.h>

/// A socket that reads and sends past Qt's buffers. [dispatcher's thread]
class CDirectSocket
{
public:
    virtual ~CDirectSocket() = default;

    /// Called before anybody looks.
    virtual void turnBegins() = 0;

    /// @return its descriptor and what to look for there, at which Qt's read notifier is left out;
    /// the descriptor is -1 while Qt does the reading
    virtual pollfd wanted() const = 0;

    /// Something of what was wanted, the end of the connection or an error has come.
    virtual void happened(short events) = 0;
};

class CConnectionDispatcher : public QAbstractEventDispatcher
{
    Q_OBJECT

public:
    CConnectionDispatcher();
    ~CConnectionDispatcher() override;

    /// @return how many descriptors the dispatchers of this process may yet make [any thread]
    static int descriptorsToCome();

    /// Serves one socket, not owned, until it is released or another one comes.
    void serve(CDirectSocket *socket) { directSocket = socket; }
    void release(const CDirectSocket *socket);

    /// Has the loop turn once more before it waits. Other than after wakeUp() the descriptors need
    /// not be looked at in between. [dispatcher's thread]
    void goOn() { turnAgain = true; }

    bool processEvents(QEventLoop::ProcessEventsFlags flags) override;
    bool hasPendingEvents() override;

    void registerSocketNotifier(QSocketNotifier *notifier) override;
    void unregisterSocketNotifier(QSocketNotifier *notifier) override;

    void registerTimer(int timerId, int interval, Qt::TimerType timerType, QObject *object) override;
    bool unregisterTimer(int timerId) override;
    bool unregisterTimers(QObject *object) override;
    QList<TimerInfo> registeredTimers(QObject *object) const override;
    int remainingTime(int timerId) override;

    /// Ends the wait under way, or keeps the next one from waiting. [any thread], as is interrupt()
    void wakeUp() override;
    void interrupt() override;
    void flush() override;

private:
    struct Timer
    {
        int id;
        int interval; // ms
        Qt::TimerType type;
        QObject *object;
        qint64 due;             // ns, of the monotonic clock
        quint64 number;         // of its registration: an id may come again
        bool isRunning = false; // its handler runs, so it rests
    };

    // The wake-up first, then the direct socket, then the notifiers in their order.
    using Polled = QVarLengthArray<pollfd, 6>;

    bool makeWakeUp();
    bool drainWakeUp(const pollfd &wakeUp);
    Polled look(bool withNotifiers, qint64 timeoutNs);
    int activateSockets(const Polled &polled);
    void handOver(int descriptor);
    void disable(QSocketNotifier *notifier);
    int activateTimers();
    void arm(const Timer &timer);
    template <typename Condition>
    bool removeTimers(Condition condition);
    qint64 nsToNextTimer() const; // -1 without a timer

    std::atomic<int> wakeUpFd{-1};
    std::atomic<bool> wakeUpPending{false};
    std::atomic<bool> interrupted{false};

    CDirectSocket *directSocket = nullptr;

    int wakeUps = 0;        // by its own thread, up to the next look, which then does not wait
    bool turnAgain = false; // the same, mostly without a look
    int turnsWithoutLook = 0;

    // A connection has two or three notifiers.
    QVarLengthArray<QSocketNotifier *, 4> notifiers;
    QVarLengthArray<QSocketNotifier *, 4> pending; // still to be activated, by this loop or one nested in it

    std::vector<Timer> timers; // by the time they are due; those of one time in the order they were armed
    quint64 timersMade = 0;
    qint64 roundTime = 0; // up to which timers have been fired; what is armed later is due later
};
