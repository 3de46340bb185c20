// Asks many workers to end without waiting for any of their protocols.
//
// CIpThread::stop() calls the host's protocol, which may block there although it should not. The
// requests are therefore made by a helper thread, and whenever one is held up, the next helper goes
// on with the other workers.
#pragma once

#include <QElapsedTimer>
#include <QList>

#include <memory>

class CIpThread;

/// One round of stop requests. [server thread]
class CStopRequests
{
public:
    /// Begins to ask. The workers have to live until finish() gives them free.
    explicit CStopRequests(const QList<CIpThread *> &workersToStop);
    ~CStopRequests();

    CStopRequests(const CStopRequests &) = delete;
    CStopRequests &operator=(const CStopRequests &) = delete;

    /// To be called now and then: adds a helper when the requests make no progress.
    void keepGoing();

    /// Asks nobody any more.
    ///
    /// @return the workers whose protocol is still being asked: those must not be destroyed
    QList<CIpThread *> finish();

private:
    struct Round;

    void addHelper();

    std::shared_ptr<Round> round; // shared with the helpers, which may outlive this object
    QElapsedTimer sinceProgress;
    int progressSeen = 0;
};
