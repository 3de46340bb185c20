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
    const std::lock_guard lock(mutex);
    stopRequested = false;
    stage = Absent;
    stopCameEarly = stopWaits = keepAliveWaits = false;
}

void CProtocolControl::stop()
{
    std::unique_lock lock(mutex);
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
        lock.unlock();
        protocol->stop();
        lock.lock();
        if (--stopsUnderWay == 0)
            noStopUnderWay.notify_all();
        break;
    case Gone:
        break;
    }
}

void CProtocolControl::passStopOn()
{
    ASSERT_IN_THREAD(worker->thread());
    {
        const std::lock_guard lock(mutex);
        if (stage != Working || !std::exchange(stopWaits, false))
            return;
    }
    stop();
}

void CProtocolControl::dropWaitingStop()
{
    ASSERT_IN_THREAD(worker->thread());
    const std::lock_guard lock(mutex);
    stopCameEarly = stopWaits = false;
}

void CProtocolControl::keepAlive()
{
    const std::lock_guard lock(mutex);
    if (stage == SettingUp)
        keepAliveWaits = true;
    else if (stage == Working)
        setKeepAlive(protocol);
}

void CProtocolControl::beginSetUp()
{
    ASSERT_IN_THREAD(worker);
    const std::lock_guard lock(mutex);
    stage = SettingUp;
}

bool CProtocolControl::endSetUp(CAbstractProtocol *startedProtocol)
{
    ASSERT_IN_THREAD(worker);
    std::unique_lock lock(mutex);
    protocol = startedProtocol;
    stage = protocol ? Working : Gone;
    if (!protocol)
        return false;
    if (keepAliveWaits)
        setKeepAlive(protocol);
    const bool isPassedOn = stopWaits;
    if (stopCameEarly) {
        lock.unlock();
        protocol->stop();
    }
    return isPassedOn;
}

void CProtocolControl::release()
{
    ASSERT_IN_THREAD(worker);
    std::unique_lock lock(mutex);
    stage = Gone;
    noStopUnderWay.wait(lock, [this] { return stopsUnderWay == 0; });
    protocol = nullptr;
}
