// The one logging call of every module: debug(). Categories, flags and the state of function tracing.
#pragma once

#include "common/exports.h"

#include <QString>

#include <atomic>

/// The category of a call. 0 and every value outside the table are always written; 1 to 20 only
/// while their switch in settings.ini (group Debug) is true.
enum DebugLevel : int
{
    DebugAlways = 0,
    DebugIpcData = 1,
    DebugIpcExtra = 2,
    DebugIpcSecurityDaemon = 3,
    DebugIpcTransport = 4,
    DebugTransportAbonents = 5,
    DebugTransportTransit = 6,
    DebugTransportConnects = 7,
    DebugTransportDataLifetime = 8,
    DebugTransportBaseProtocol = 9,
    DebugTransportProtocol = 10,
    DebugTransportProtocolAttaches = 11,
    DebugTransportIpSocketError = 12,
    DebugTransportComPortError = 13,
    DebugTransportComAtCommands = 14,
    DebugTransportComPackets = 15,
    DebugTransportComData = 16,
    DebugTransportTasks = 17,
    DebugJournals = 18,
    DebugMessagesAutodelete = 19,
    DebugMessagesLock = 20
};

/// Only bit 0 is looked at.
enum DebugFlag : int
{
    DebugFlagNone = 0,    // to the log file, and echoed to the Qt debug stream
    DebugFlagFileOnly = 1 // to the log file only
};

/// Function tracing: -1 not yet known, 0 off, 1 on. Set by the first trace scope of the module; while
/// it is on, every category is written. Not exported: each module has its own.
extern std::atomic<int> gFunctionsDebuging;

/// @return whether debug() writes records of this category at present; to be asked before a text is put
/// together that often nobody wants. [any thread]
bool isDebugOn(DebugLevel level);

/// Writes one record into the log of this process, unless the switch of its category is off.
///
/// @param source who speaks; a class name, shown right-aligned in 25 columns, a longer one cut
/// @param text one or more lines; may hold foreign text
/// Never fails to its caller: troubles go to the Qt message stream. A record reaches the file as one
/// piece, whichever threads, modules and processes write at once.
/// [any thread] Locks the DebugData mutex for the write; no Qt message is emitted under it.
RUNTIME_EXPORT void debug(QString source, const QString &text, DebugLevel level, DebugFlag flag);
