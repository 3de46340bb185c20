// The logging state that all modules of one process share.
//
// The host makes it and hands it to every plug-in by pointer, so that their records do not mix and a
// thread has one indentation, whichever module logs.
#pragma once

#include "common/exports.h"
#include "common/processwide.h"

#include <QList>
#include <QMutex>

class QThread;

/// One indentation slot. Slots are never removed; a freed one serves the next new thread.
struct Tabulation
{
    QThread *thread; // the thread that owns the slot; null when the slot is free
    int tabLevel;    // 1-based position of the slot in the list
};

/// Passed by pointer between host and plug-ins: the layout is a contract, add and move nothing.
struct DebugData
{
    QList<Tabulation> tabulations; // in slot order
    QMutex mutex;                  // guards the list and every write to the log file
};

/// The binding of this module. Never exported: each module has its own. Null until bound.
extern ProcessWide<DebugData> gDebugData;

class RUNTIME_EXPORT LoggerData
{
public:
    /// Binds the host's @a data, which must live as long as the process; null binds a new state of
    /// this module's own. A later call replaces the binding; the old state is not freed, since
    /// another thread may still be using it. [any thread]
    static void initDebug(DebugData *data);

    /// The current binding, or null. [any thread]
    static DebugData *debugData();
};

/// The binding, made now if there is none. Threads that come at once get the same one. [any thread]
DebugData *boundDebugData();

/// The indentation level of the calling thread, from 1; a thread gets its slot at the first call.
/// [any thread] Locks the DebugData mutex.
RUNTIME_EXPORT int currentTabLevel();

/// The same in @a data, for who holds a CTerminationGuard.
int tabLevelIn(DebugData *data);

/// What tabLevelIn() told the calling thread last; 1 before it did.
int lastTabLevel();

/// Whether the calling thread has that very level still. Call it with the DebugData mutex held.
bool isTabLevelStill(const DebugData &data, int level);

/// Frees the slot of a @a thread that will log no more; an unknown thread changes nothing. Only the
/// pointer's value is used. [any thread] Locks the DebugData mutex.
RUNTIME_EXPORT void deleteThreadTabLevel(QThread *thread);
