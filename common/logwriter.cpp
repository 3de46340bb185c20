#include "common/logwriter.h"

#include "common/csettings.h"
#include "common/debugdata.h"
#include "common/logfile.h"
#include "common/logformat.h"
#include "common/messagequeue.h"
#include "common/terminationguard.h"

#include <QMutexLocker>

std::atomic<int> gFunctionsDebuging{-1};

namespace {

constexpr int switchCount = DebugMessagesLock + 1; // the first, of Debug/all, is no category's

constexpr bool isSwitch(int level, bool (CSettings::*flag)())
{
    return settingsKeys[level].flag == flag;
}
static_assert(isSwitch(DebugIpcData, &CSettings::debugIpcData) &&
                  isSwitch(DebugTransportConnects, &CSettings::debugTransportConnects) &&
                  isSwitch(DebugMessagesLock, &CSettings::debugMessagesLock),
              "the table of keys has the switches in the order of the categories");

// Each switch as it was last read: its value in bit 0, above it the generation of the settings that it
// was read in. 0 is older than every generation.
std::atomic<quint64> lastRead[switchCount];

bool isSwitchedOn(int level)
{
    if (level == DebugAlways || gFunctionsDebuging.load(std::memory_order_relaxed) > 0)
        return true;
    CSettings settings;
    if (level < 1 || level >= switchCount)
        return true;
    const quint64 generation = settings.generation();
    const quint64 known = lastRead[level].load(std::memory_order_relaxed);
    if (known >> 1 == generation)
        return (known & 1) != 0;
    const bool isOn = (settings.*settingsKeys[level].flag)();
    lastRead[level].store(generation << 1 | (isOn ? 1 : 0), std::memory_order_relaxed);
    return isOn;
}

void append(DebugData *data, const QString &source, const QString &text)
{
    static CLogFile &log = *new CLogFile; // never destroyed: threads may log while the process ends
    const LogFormat::TimeText time = LogFormat::timeStamp();
    // Made before the lock is taken, hence for the level of last time: under the lock it shows whether it
    // fits.
    int level = lastTabLevel();
    LogFormat::Record record = LogFormat::record(time, source, level, text);

    const CMessageHold hold;
    LogPreparation preparation;
    for (;;) {
        bool fits = false;
        int needed = LogPreparation::Nothing;
        {
            const QMutexLocker locker(&data->mutex);
            fits = isTabLevelStill(*data, level);
            if (fits)
                needed = log.append({record.constData(), static_cast<size_t>(record.size())}, preparation);
        }
        if (!fits) {
            level = tabLevelIn(data);
            record = LogFormat::record(time, source, level, text);
        } else if (needed == LogPreparation::Nothing) {
            return;
        } else {
            preparation.get(needed);
        }
    }
}

} // namespace

bool isDebugOn(DebugLevel level)
{
    const CTerminationGuard guard;
    return isSwitchedOn(level);
}

void debug(QString source, const QString &text, DebugLevel level, DebugFlag flag)
{
    const CTerminationGuard guard;
    DebugData *const data = boundDebugData();
    if (!isSwitchedOn(level))
        return;
    if ((flag & DebugFlagFileOnly) == 0)
        Messages::say(QtDebugMsg, Messages::format(QString(), {source, text}));
    append(data, source, text);
}
