#include "transportIp/cprotocolcontrol.h"

#include "interfaces/cabstractprotocol.h"
#include "transportIp/threadcheck.h"

#include <utility>

namespace {

void setKeepAlive(CAbstractProtocol *protocol)
{
    __atomic_store_n(&protocol->keepAliveRequested, true, __ATOMIC_SEQ_CST); // the protocol clears it
}

} // namespace

void CProtocolControl::beginNext()
{
    ASSERT_IN_THREAD(worker->thread());
    const QMutexLocker locker(&mutex);
    stopRequested = false;
    stage = Absent;
    stopCameEarly = stopWaits = keepAliveWaits = false;
}

void CProtocolControl::stop()
{
    QMutexLocker locker(&mutex);
    stopRequested = true;
    switch (stage) {
    case Absent:
        stopCameEarly = true;
        break;
    case SettingUp:
        stopWaits = true;
        break;
    case Working:
        ++stopsUnderWay;
        locker.unlock();
        protocol->stop();
        locker.relock();
        if (--stopsUnderWay == 0)
            noStopUnderWay.wakeAll();
        break;
    case Gone:
        break;
    }
}

void CProtocolControl::passStopOn()
{
    ASSERT_IN_THREAD(worker->thread());
    {
        const QMutexLocker locker(&mutex);
        if (stage != Working || !std::exchange(stopWaits, false))
            return;
    }
    stop();
}

void CProtocolControl::dropWaitingStop()
{
    ASSERT_IN_THREAD(worker->thread());
    const QMutexLocker locker(&mutex);
    stopCameEarly = stopWaits = false;
}

void CProtocolControl::keepAlive()
{
    const QMutexLocker locker(&mutex);
    if (stage == SettingUp)
        keepAliveWaits = true;
    else if (stage == Working)
        setKeepAlive(protocol);
}

void CProtocolControl::beginSetUp()
{
    ASSERT_IN_THREAD(worker);
    const QMutexLocker locker(&mutex);
    stage = SettingUp;
}

bool CProtocolControl::endSetUp(CAbstractProtocol *startedProtocol)
{
    ASSERT_IN_THREAD(worker);
    QMutexLocker locker(&mutex);
    protocol = startedProtocol;
    stage = protocol ? Working : Gone;
    if (!protocol)
        return false;
    if (keepAliveWaits)
        setKeepAlive(protocol);
    const bool isPassedOn = stopWaits;
    if (stopCameEarly) {
        locker.unlock();
        protocol->stop();
    }
    return isPassedOn;
}

void CProtocolControl::release()
{
    ASSERT_IN_THREAD(worker);
    QMutexLocker locker(&mutex);
    stage = Gone;
    while (stopsUnderWay > 0)
        noStopUnderWay.wait(&mutex);
    protocol = nullptr;
}
