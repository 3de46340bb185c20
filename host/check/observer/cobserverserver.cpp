#include "host/check/observer/cobserverserver.h"

#include "common/logger.h"
#include "host/check/observer/hostcall.h"

#include <algorithm>
#include <atomic>

namespace {

constexpr int turnMs = 10;
constexpr int slowStopMs = 200;   // a host has to wait for it
constexpr int stopLimitMs = 6000; // then threads are given up
constexpr int lockMs = 500;
constexpr int userThreads = 8;
constexpr int userRounds = 50;

std::atomic<int> serversAlive{0};
std::atomic<int> serversStarted{0}; // and not stopped

bool answersCalls()
{
    return qgetenv("ABONENT_OBSERVER_CALLS") != "refuse";
}

} // namespace

CObserverServer::CObserverServer()
{
    ++serversAlive;
    connect(&clock, &QTimer::timeout, this, &CObserverServer::turn);
    connect(this, &CChannelServer::connected, this, [this](const QString &, int id) { known.insert(id); });
}

CObserverServer::~CObserverServer()
{
    --serversAlive;
    Report::judge("deleted-in-thread", thread() == QThread::currentThread(),
                  QStringLiteral("Сервер удален не в своем потоке"));
    Report::judge("kept-until-finished", state == Created || state == Finished,
                  QStringLiteral("Сервер удален раньше, чем он сказал finished()"));
    for (auto &each : connections) // nobody has waited for them
        each.release();            // NOLINT: they still run
    for (auto &each : users)
        each->wait();
}

bool CObserverServer::areAllStopped()
{
    return serversStarted == 0;
}

void CObserverServer::judgeLeft()
{
    if (areAllStopped()) // else it is worse: they were not stopped
        Report::judge("server-deleted", serversAlive == 0,
                      QStringLiteral("К концу программы не удалено серверов: %1").arg(serversAlive));
}

/// Every call of the host comes here first.
void CObserverServer::look(const char *operation, bool isInOrder) const
{
    const QString name = QString::fromLatin1(operation);
    Report::judge("server-thread", thread() == QThread::currentThread(),
                  QStringLiteral("%1 вызван не в потоке сервера").arg(name));
    static constexpr const char *times[] = {"до start()", "после start()", "между stop() и finished()",
                                            "после finished()"};
    Report::judge("calls-in-order", isInOrder,
                  QStringLiteral("%1 вызван %2").arg(name, QString::fromUtf8(times[state])));
    DebugData *const data = LoggerData::debugData();
    const bool isFree = !data || data->mutex.tryLock(lockMs);
    if (data && isFree)
        data->mutex.unlock();
    Report::judge("free-log-mutex", isFree, QStringLiteral("%1 вызван с занятым мьютексом лога").arg(name));
}

bool CObserverServer::hasFreeChannel() const
{
    look("hasFreeChannel()", state == Running);
    return true;
}

bool CObserverServer::isHardwareOn() const
{
    look("isHardwareOn()", true);
    return true;
}

bool CObserverServer::canCheckOnline() const
{
    look("canCheckOnline()", true);
    return true;
}

void CObserverServer::start()
{
    look("start()", state == Created || state == Finished);
    QStringList missing;
    if (!protocolFactory)
        missing << QStringLiteral("protocolFactory");
    if (!monitor)
        missing << QStringLiteral("monitor");
    if (!journal)
        missing << QStringLiteral("journal");
    Report::judge("members-set", missing.isEmpty(),
                  QStringLiteral("К start() не заданы: %1").arg(missing.join(QLatin1String(", "))));
    ++serversStarted;
    state = Running;
    QMetaObject::invokeMethod(
        this, [this] { clock.start(turnMs); }, Qt::QueuedConnection);
    isInert = !missing.isEmpty();
    if (isInert)
        return;
    hostCall("monitor-threads", QStringLiteral("setState()"),
             [this] { monitor->setState(monitorHandle, QStringLiteral("Работает")); });
    useFromManyThreads();
    for (const FarEnd farEnd :
         {FarEnd::Silent, FarEnd::Closing, FarEnd::Flood, FarEnd::Deaf, FarEnd::Closing})
        open(farEnd, std::make_shared<CObserverLine>(), QString());
}

void CObserverServer::useFromManyThreads()
{
    for (int i = 0; i < userThreads; ++i) {
        users.emplace_back(QThread::create([this, i] {
            const QString label = QStringLiteral("Поток %1").arg(i);
            for (int round = 0; round < userRounds && !Report::isBroken("monitor-threads") &&
                                !Report::isBroken("journal-threads");
                 ++round) {
                hostCall("monitor-threads", QStringLiteral("Монитор"), [&] {
                    const int handle = monitor->addConnection(observerKind, label, label);
                    monitor->setState(handle, label);
                    monitor->addReceived(handle, round);
                    monitor->addSent(handle, round);
                    monitor->removeConnection(handle);
                    monitor->setState(handle, label); // on its way when the entry went
                });
                hostCall("journal-threads", QStringLiteral("Журнал"),
                         [&] { journal->addRecord(round % 2 ? JournalEvent : JournalError, label, label); });
            }
            deleteThreadTabLevel(QThread::currentThread());
        }));
        users.back()->start();
    }
}

CObserverConnection *CObserverServer::open(FarEnd farEnd, const std::shared_ptr<CObserverLine> &line,
                                           const QString &called)
{
    connections.push_back(
        std::make_unique<CObserverConnection>(this, int(connections.size()) + 1, farEnd, line, called));
    connections.back()->start();
    return connections.back().get();
}

void CObserverServer::turn()
{
    if (state == Stopping)
        return turnOfStop();
    const bool isPlaying =
        std::any_of(users.begin(), users.end(), [](const auto &each) { return each->isRunning(); }) ||
        std::any_of(connections.begin(), connections.end(),
                    [](const auto &each) { return each->isRunning() && each->farEnd != FarEnd::Silent; });
    if (!isPlaying && !waiting.empty())
        return answerCalls();
    if (!isPlaying)
        Report::idle();
}

void CObserverServer::answerCalls()
{
    const QString name = waiting.front();
    waiting.erase(waiting.begin());
    if (!answersCalls() || isInert) {
        Q_EMIT notConnected(name);
        return;
    }
    const auto line = std::make_shared<CObserverLine>();
    open(FarEnd::Host, line, name);
    open(FarEnd::Host, line, QString());
}

void CObserverServer::stop()
{
    look("stop()", state == Running);
    if (state != Running)
        return;
    state = Stopping;
    sinceStop.start();
    waiting.clear();
    QMetaObject::invokeMethod(
        this,
        [this] {
            for (const auto &each : connections)
                each->stop();
        },
        Qt::QueuedConnection);
}

void CObserverServer::turnOfStop()
{
    const bool isBusy = std::any_of(connections.begin(), connections.end(),
                                    [](const auto &each) { return each->isRunning(); });
    if (!sinceStop.hasExpired(slowStopMs) || (isBusy && !sinceStop.hasExpired(stopLimitMs)))
        return;
    for (auto &each : connections) {
        if (each->isRunning())
            each.release(); // NOLINT: it hangs in the host's code
    }
    for (auto &each : users)
        each->wait();
    users.clear();
    connections.clear();
    clock.stop();
    if (!isInert)
        hostCall("monitor-threads", QStringLiteral("setState()"),
                 [this] { monitor->setState(monitorHandle, QStringLiteral("Выключен")); });
    state = Finished;
    --serversStarted;
    Report::kept("stopped");
    Q_EMIT finished(); // the host may delete the server here
}

void CObserverServer::settingsWasChanged()
{
    look("settingsWasChanged()", state == Running);
}

void CObserverServer::connectToAbonent(const QString &abonentName, const QByteArray &abonentsData)
{
    Q_UNUSED(abonentsData)
    look("connectToAbonent()", state == Running);
    waiting.push_back(abonentName);
}

void CObserverServer::disconnectFromAbonent(const QString &abonentName, int connectionId)
{
    look("disconnectFromAbonent()", state == Running);
    connectionKnown("disconnectFromAbonent()", connectionId == -1 ? 0 : connectionId);
    const auto it = std::find_if(connections.begin(), connections.end(), [&](const auto &each) {
        return each->id == connectionId || (connectionId == -1 && each->isOf(abonentName));
    });
    if (it != connections.end())
        (*it)->stop();
}

void CObserverServer::keepAliveConnection(int connectionId)
{
    look("keepAliveConnection()", state == Running);
    connectionKnown("keepAliveConnection()", connectionId);
    if (connectionId >= 1 && connectionId <= int(connections.size()))
        connections[std::size_t(connectionId - 1)]->keepAlive();
}

/// @param id 0: by name
void CObserverServer::connectionKnown(const char *operation, int id)
{
    Report::judge("known-connection", id == 0 || known.count(id) > 0,
                  QStringLiteral("%1 с номером %2, которого не было ни в одном connected")
                      .arg(QString::fromLatin1(operation))
                      .arg(id));
}
