#include "transportIp/cstoprequests.h"

#include "common/debugdata.h"
#include "transportIp/cipthread.h"

#include <atomic>
#include <system_error>
#include <thread>
#include <vector>

namespace {
constexpr int heldUpMs = 50; // a protocol that takes longer to hear its stop() holds nobody else up
}

struct CStopRequests::Round
{
    explicit Round(const QList<CIpThread *> &workersToStop)
        : workers(workersToStop), answered(size_t(workersToStop.size()))
    {}

    void askAll()
    {
        for (int i = next++; i < workers.size(); i = next++) {
            workers[i]->stop();
            answered[size_t(i)] = true;
            ++answers;
        }
    }

    const QList<CIpThread *> workers;
    std::atomic<int> next{0};
    std::atomic<int> answers{0};
    std::vector<std::atomic<bool>> answered;
};

CStopRequests::CStopRequests(const QList<CIpThread *> &workersToStop)
    : round(std::make_shared<Round>(workersToStop))
{
    if (!workersToStop.isEmpty())
        addHelper();
}

CStopRequests::~CStopRequests() = default;

void CStopRequests::keepGoing()
{
    const int answers = round->answers;
    if (answers != progressSeen) {
        progressSeen = answers;
        sinceProgress.start();
    } else if (round->next < round->workers.size() && sinceProgress.hasExpired(heldUpMs)) {
        addHelper();
    }
}

QList<CIpThread *> CStopRequests::finish()
{
    const int asked = std::min(round->next.exchange(round->workers.size()), round->workers.size());
    QList<CIpThread *> stillAsked;
    for (int i = 0; i < asked; ++i) {
        if (!round->answered[size_t(i)])
            stillAsked.append(round->workers[i]);
    }
    return stillAsked;
}

void CStopRequests::addHelper()
{
    sinceProgress.start();
    try {
        std::thread([shared = round] {
            shared->askAll();
            deleteThreadTabLevel(QThread::currentThread()); // tracing may have taken a slot
        }).detach();
    } catch (const std::system_error &) {
        round->askAll(); // no thread to be had: then it is this one
    }
}
