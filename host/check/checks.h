// The checks that are more than a rule. Each gets a loaded library (but for the first two) and returns
// null when it has passed, else what is wrong.
#pragma once

class CStage;
class QString;

namespace Checks {

// checks_plugin.cpp: the library and its plug-in object
QString entryPoints(CStage &stage);
QString apiVersion(CStage &stage);
QString pluginObject(CStage &stage);
QString pluginThreads(CStage &stage);
QString callDelay(CStage &stage);
QString metaObject(CStage &stage);
QString freshServer(CStage &stage);

// checks_server.cpp: one server, mostly with one or two calls
QString startStop(CStage &stage);
QString queries(CStage &stage);
QString callConnects(CStage &stage);
QString dataIntact(CStage &stage);
QString restart(CStage &stage);
QString manyCalls(CStage &stage);
QString disconnectById(CStage &stage);
QString disconnectByName(CStage &stage);
QString unknownConnection(CStage &stage);
QString settingsChange(CStage &stage);
QString keepAlive(CStage &stage);
QString queuedCalls(CStage &stage);

// checks_trouble.cpp: what goes wrong in a host's life
QString silentAbonent(CStage &stage);
QString garbageData(CStage &stage);
QString refusedProtocol(CStage &stage);
QString finishInStart(CStage &stage);
QString finishInStop(CStage &stage);
QString stopWhileCalling(CStage &stage);
QString boundedWrite(CStage &stage);
QString freeLogMutex(CStage &stage);

// checks_leaks.cpp: nothing is left of a server
QString noSlotLeft(CStage &stage);
QString noThreadLeft(CStage &stage);
QString noDescriptorLeft(CStage &stage);
QString noMemoryLeft(CStage &stage);

// checks_random.cpp
QString randomRun(CStage &stage);

// The steps that most checks share.

/// start(), one call that exchanges @a payloadBytes, and both ends' connected().
QString converse(CStage &stage, int payloadBytes);

/// The same, then stop() and the server's end.
QString wholeConversation(CStage &stage, int payloadBytes);

} // namespace Checks
