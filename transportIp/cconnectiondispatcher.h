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

    /// Something has arrived at a descriptor. @return whether it is this socket's and the bytes are left
    /// to be read from there; false has Qt read them, or find the end of the connection.
    virtual bool keepsFromQt(qintptr descriptor) = 0;
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
        qint64 due;    // ns, of the monotonic clock
        quint64 round; // the last round it fired in
    };

    bool makeWakeUp();
    bool drainWakeUp();
    int waitForSockets(bool withNotifiers, qint64 timeoutNs);
    int activateNotifiers();
    int activateTimers();
    qint64 nsToNextTimer() const; // -1 without a timer

    std::atomic<int> wakeUpFd{-1};
    std::atomic<bool> wakeUpPending{false};
    std::atomic<bool> interrupted{false};

    CDirectSocket *directSocket = nullptr;

    // Woken by its own thread: the next turn does not wait, mostly it does not even look.
    bool turnAgain = false;
    int turnsWithoutLook = 0;

    // A connection has two or three notifiers.
    QVarLengthArray<QSocketNotifier *, 4> notifiers;
    QVarLengthArray<pollfd, 5> polled; // what the last wait looked at: the wake-up, then notifiers
    QVarLengthArray<QSocketNotifier *, 4> activated; // of this round; null: unregistered meanwhile
    std::vector<Timer> timers;
    quint64 timerRound = 0;
};
