// How the IP server hands descriptors and calls to workers, finds them again and ends them all.
#include "transportIp/cipserver.h"

#include "common/debugdata.h"
#include "common/descriptor.h"
#include "common/functiontrace.h"
#include "common/logwriter.h"
#include "common/namefilter.h"
#include "common/settingonce.h"
#include "transportIp/cconnectiondispatcher.h"
#include "transportIp/threadcheck.h"

#include <QDebug>
#include <QElapsedTimer>

#include <algorithm>
#include <cerrno>

#include <sys/eventfd.h>
#include <sys/resource.h>

namespace {

constexpr int startPollMs = 20;
constexpr int stopPollMs = 10;
constexpr int terminationMs = 200; // a terminated thread ends within a millisecond, if it ends at all
constexpr int logWaitMs = 10;

void log(const QString &text, DebugLevel level = DebugAlways)
{
    debug(QStringLiteral("CIpServer"), text, level, DebugFlagNone);
}

/// How many descriptors are left to the rest of the process: its log, its files, its other channels.
int descriptorReserve(int limit)
{
    return std::clamp(limit / 16, 8, 64);
}

/// Descriptors are given out lowest first, so a new one close to the limit means that few are left. Each
/// worker that has just been started may still take one.
bool leavesReserve(qintptr descriptor)
{
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur == RLIM_INFINITY)
        return true;
    const int count = int(std::min<rlim_t>(limit.rlim_cur, 1 << 30));
    return descriptor + CConnectionDispatcher::descriptorsToCome() < count - descriptorReserve(count);
}

/// @return whether a call, which brings no descriptor along, may take some
bool hasDescriptorsForCall()
{
    const CDescriptor next(::eventfd(0, EFD_CLOEXEC));
    return next.isOpen() && leavesReserve(next.get());
}

/// @return whether a record can be written without waiting for those who fight for the log
bool isLogFree()
{
    QMutex &mutex = boundDebugData()->mutex;
    if (!mutex.tryLock(logWaitMs))
        return false;
    mutex.unlock();
    return true;
}

void lower(std::atomic<int> &number, int value)
{
    int current = number;
    while (value < current && !number.compare_exchange_weak(current, value))
        ;
}

} // namespace

/// @return the first worker that is free, or a new one
CIpThread *CIpServer::takeWorker()
{
    for (int i = *firstFree; i < threads.size(); ++i) {
        if (threads[i]->isFree())
            return threads[i];
        if (i == *firstFree && threads[i]->isRunning()) {
            int expected = i;
            firstFree->compare_exchange_strong(expected, i + 1);
            if (!threads[i]->isRunning())
                lower(*firstFree, i); // it has ended in between
        }
    }
    const int index = threads.size();
    auto worker = std::make_unique<CIpThread>(this, index + 1);
    connect(
        worker.get(), &QThread::finished, worker.get(),
        [shared = firstFree, index] { lower(*shared, index); }, Qt::DirectConnection);
    threads.append(worker.get());
    return worker.release();
}

void CIpServer::inputConnection()
{
    TRACE_FUNCTION;
    ASSERT_IN_THREAD(thread());
    QList<qintptr> descriptors;
    descriptors.swap(tcpServer->pendingDescriptors);
    for (const qintptr descriptor : qAsConst(descriptors)) {
        if (!leavesReserve(descriptor)) {
            CDescriptor(int(descriptor)).reset();
            reportRefusal(EMFILE);
        } else if (!takeWorker()->answer(descriptor)) {
            reportRefusal(errno);
        }
    }
}

void CIpServer::connectToAbonent(const QString &abonentName, const QByteArray &abonentsData)
{
    TRACE_FUNCTION;
    ASSERT_IN_THREAD(thread());
    AbonentIpSettings settings;
    const QString error = settings.fromByteArray(abonentsData);
    if (!error.isEmpty()) {
        log(QStringLiteral("Невозможно вызвать абонента '%1' т.к. настройки не верны. %2")
                .arg(abonentName, error));
        return;
    }

    if (!hasDescriptorsForCall()) {
        // The call could not be set up; a host that retries will try again.
        log(QStringLiteral("Не удалось установить соединение с '%1': %2")
                .arg(abonentName, qt_error_string(EMFILE)));
        Q_EMIT notConnected(abonentName);
        return;
    }

    static CSettingOnce startTimeout(&CSettings::detailsTransportIpThreadStartTimeout); // ms
    CIpThread *worker = takeWorker();
    worker->call(abonentName, settings);
    QElapsedTimer clock;
    clock.start();
    while (!worker->isRunning() && !worker->isFinished()) { // a call refused at once may be over already
        QThread::msleep(startPollMs);
        if (clock.elapsed() > startTimeout.value()) {
            log(QStringLiteral("Не удалось дождаться запуска потока канала для вызова абонента '%1'")
                    .arg(abonentName));
            return;
        }
    }
}

void CIpServer::disconnectFromAbonent(const QString &abonentName, int connectionId)
{
    TRACE_FUNCTION;
    ASSERT_IN_THREAD(thread());
    const QString filteredName = Global::filterName(abonentName);
    for (CIpThread *worker : qAsConst(threads)) {
        const QString workersName = worker->currentAbonentName();
        if (worker->id() == connectionId ||
            (connectionId == -1 && Global::filterName(workersName) == filteredName)) {
            worker->stop();
            return;
        }
        qDebug() << workersName << worker->id();
    }
    log(QStringLiteral(
            "Не удалось найти соединение чтобы разорвать соединение с абонентом '%1', connectionId %2")
            .arg(abonentName, QString::number(connectionId)),
        DebugTransportConnects);
}

void CIpServer::keepAliveConnection(int connectionId)
{
    TRACE_FUNCTION;
    ASSERT_IN_THREAD(thread());
    const auto worker = std::find_if(threads.cbegin(), threads.cend(), [connectionId](const CIpThread *each) {
        return each->id() == connectionId;
    });
    if (worker != threads.cend()) {
        (*worker)->keepAlive();
        return;
    }
    log(QStringLiteral("Не удалось найти соединение чтобы удержать connectionId %2").arg(connectionId),
        DebugTransportConnects);
}

void CIpServer::internalStop()
{
    TRACE_FUNCTION;
    ASSERT_IN_THREAD(thread());
    monitor->setState(monitorHandle, QStringLiteral("Выключение"));
    if (tcpServer)
        tcpServer->pause();
    reportLastRefusal();
    refusalPause.stop();

    const QList<CIpThread *> running = runningWorkers();
    for (CIpThread *worker : running)
        worker->stop();
    waitForWorkers();
    terminateStragglers();

    if (tcpServer)
        tcpServer->closeListener();
    releaseWorkers();
    monitor->setState(monitorHandle, QStringLiteral("Выключен"));
    Q_EMIT finished();
}

/// Waits until no worker runs, for as long as the settings allow.
void CIpServer::waitForWorkers() const
{
    static CSettingOnce stopTimeout(&CSettings::detailsTransportServerThreadStopTimeout); // ms
    const int waitMs = int(0.9F * float(stopTimeout.value()));
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < waitMs) {
        QThread::msleep(stopPollMs);
        const QList<CIpThread *> running = runningWorkers();
        if (running.isEmpty())
            return;
        for (CIpThread *worker : running)
            worker->passStopOn(); // the event loop, which does it otherwise, stands still
    }
}

/// Ends by force what did not end by itself, and gives it a moment.
void CIpServer::terminateStragglers()
{
    const QList<CIpThread *> stragglers = runningWorkers();
    if (stragglers.isEmpty())
        return;
    const auto announce = [] {
        log(QStringLiteral("Некоторые потоки не остановились во время и будет убиты"));
    };
    const bool isAnnounced = isLogFree();
    if (isAnnounced)
        announce();
    for (CIpThread *worker : stragglers)
        worker->terminate();
    QElapsedTimer clock;
    clock.start();
    do
        QThread::msleep(stopPollMs);
    while (!runningWorkers().isEmpty() && !clock.hasExpired(terminationMs));
    if (!isAnnounced)
        announce();
    for (CIpThread *worker : stragglers) {
        if (worker->isFree())
            worker->cleanUpAfterTermination();
    }
}

/// Destroys the workers that have ended. One that cannot be ended is cut off and left behind for as long
/// as the process lives.
void CIpServer::releaseWorkers()
{
    QStringList leftBehind;
    for (CIpThread *worker : qAsConst(threads)) {
        deleteThreadTabLevel(worker);
        if (worker->isFree()) {
            delete worker;
            continue;
        }
        worker->leaveBehind();
        leftBehind.append(QString::number(worker->id()));
    }
    // One line for all: those left behind may be fighting for the log, and each line costs a turn.
    if (!leftBehind.isEmpty())
        log(QStringLiteral("Потоки соединений не удалось завершить, они оставлены: %1")
                .arg(leftBehind.join(QStringLiteral(", "))));
    threads.clear();
    firstFree = std::make_shared<std::atomic<int>>(0);
}

QList<CIpThread *> CIpServer::runningWorkers() const
{
    QList<CIpThread *> running;
    std::copy_if(threads.cbegin(), threads.cend(), std::back_inserter(running),
                 [](const CIpThread *worker) { return worker->isRunning(); });
    return running;
}
