// How other threads reach the protocol of a connection: to stop it and to keep it alive.
//
//   a request comes while the protocol    a stop reaches it                     a keep-alive
//   is not there yet                      right after start(), in its thread    is passed over
//   is being made or in its start()       by passStopOn(), after start()        is set after start()
//   works                                 at once, in the caller's thread       is set at once
//   is being deleted, or gone             never: nothing is left to stop        is passed over
//
// Nobody waits for createProtocol(), start() or the destructor, and none of them runs under the lock;
// nor does stop(), but the protocol is not deleted before it returns.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

class CAbstractProtocol;
class QThread;

class CProtocolControl
{
public:
    /// @param connectionThread the worker; not owned
    explicit CProtocolControl(const QThread *connectionThread) : worker(connectionThread) {}

    /// Forgets the last connection and what was asked of it. Not in the new thread: a stop may come before
    /// that gets anywhere. [server thread], before the connection's thread starts
    void beginNext();

    /// [any thread] Calls the protocol's stop() if it works, and as long as that takes.
    void stop();

    /// Calls the stop() for a request that had to wait for the end of start(). [server thread]
    void passStopOn();

    /// Lets no waiting request reach the protocol any more. [server thread]
    void dropWaitingStop();

    /// [any thread]
    void keepAlive();

    /// @return whether this connection is to end [any thread]
    bool isStopRequested() const { return stopRequested; }

    /// From here to endSetUp() requests wait: the protocol is made and started. [connection thread]
    void beginSetUp();

    /// Takes up what was asked before and meanwhile.
    ///
    /// @param startedProtocol null when there is none
    /// @return whether a stop waits for passStopOn()
    /// [connection thread]
    bool endSetUp(CAbstractProtocol *startedProtocol);

    /// Lets the protocol go; waits for a stop() under way. [connection thread], before it is deleted
    void release();

private:
    enum Stage
    {
        Absent,
        SettingUp,
        Working,
        Gone,
    };

    const QThread *worker;
    std::atomic<bool> stopRequested{false};

    std::mutex mutex; // guards the rest; held for moments
    Stage stage = Absent;
    CAbstractProtocol *protocol = nullptr; // while it works
    bool stopCameEarly = false;            // before the set-up
    bool stopWaits = false;                // for the end of the set-up
    bool keepAliveWaits = false;
    int stopsUnderWay = 0;
    std::condition_variable noStopUnderWay;
};
