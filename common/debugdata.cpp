#include "common/debugdata.h"

#include "common/terminationguard.h"

#include <QMutexLocker>
#include <QThread>

ProcessWide<DebugData> gDebugData;

void LoggerData::initDebug(DebugData *data)
{
    const CTerminationGuard guard;
    gDebugData = data != nullptr ? data : new DebugData;
}

DebugData *LoggerData::debugData()
{
    return gDebugData;
}

DebugData *boundDebugData()
{
    if (DebugData *const bound = gDebugData)
        return bound;
    const CTerminationGuard guard;
    return &gDebugData.orMade([] { return std::make_unique<DebugData>(); });
}

namespace {

// Where this thread's slot was found last: a thread of a large server need not search for it. And its level.
thread_local int lastSlot = 0;
thread_local int lastLevel = 1;

int slotOf(const QList<Tabulation> &slotList, QThread *thread)
{
    if (lastSlot < slotList.size() && slotList.at(lastSlot).thread == thread)
        return lastSlot;
    for (int slot = 0; slot < slotList.size(); ++slot) {
        if (slotList.at(slot).thread == thread)
            return slot;
    }
    return -1;
}

} // namespace

int currentTabLevel()
{
    const CTerminationGuard guard;
    return tabLevelIn(boundDebugData());
}

int tabLevelIn(DebugData *data)
{
    QThread *const thread = QThread::currentThread();
    const QMutexLocker locker(&data->mutex);

    QList<Tabulation> &slotList = data->tabulations;
    int slot = slotOf(slotList, thread);
    if (slot < 0) {
        slot = slotOf(slotList, nullptr);
        if (slot >= 0)
            slotList[slot].thread = thread;
    }
    if (slot < 0) {
        slot = slotList.size();
        slotList.append({thread, slot + 1});
    }
    lastSlot = slot;
    lastLevel = slotList.at(slot).tabLevel;
    return lastLevel;
}

int lastTabLevel()
{
    return lastLevel;
}

bool isTabLevelStill(const DebugData &data, int level)
{
    const int slot = lastSlot;
    return slot < data.tabulations.size() && data.tabulations.at(slot).thread == QThread::currentThread() &&
           data.tabulations.at(slot).tabLevel == level;
}

void deleteThreadTabLevel(QThread *thread)
{
    const CTerminationGuard guard;
    DebugData *const data = LoggerData::debugData();
    if (data == nullptr || thread == nullptr)
        return; // null marks a free slot and is no thread

    const QMutexLocker locker(&data->mutex);
    for (Tabulation &tabulation : data->tabulations) {
        if (tabulation.thread == thread) {
            tabulation.thread = nullptr;
            return;
        }
    }
}
