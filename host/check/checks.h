// The checks that are more than a rule. Each gets a loaded library (but for the first two) and returns
// null when it has passed, else what is wrong.
#pragma once

class CFixture;
class QString;

namespace Checks {

// checks_plugin.cpp: the library and its plug-in object
QString entryPoints(CFixture &fixture);
QString apiVersion(CFixture &fixture);
QString pluginObject(CFixture &fixture);
QString pluginThreads(CFixture &fixture);
QString callDelay(CFixture &fixture);
QString metaObject(CFixture &fixture);
QString freshServer(CFixture &fixture);

// checks_server.cpp: one server, mostly with one or two calls
QString startStop(CFixture &fixture);
QString queries(CFixture &fixture);
QString callConnects(CFixture &fixture);
QString dataIntact(CFixture &fixture);
QString restart(CFixture &fixture);
QString manyCalls(CFixture &fixture);
QString disconnectById(CFixture &fixture);
QString disconnectByName(CFixture &fixture);
QString unknownConnection(CFixture &fixture);
QString settingsChange(CFixture &fixture);
QString keepAlive(CFixture &fixture);
QString queuedCalls(CFixture &fixture);

// checks_trouble.cpp: what goes wrong in a host's life
QString silentAbonent(CFixture &fixture);
QString garbageData(CFixture &fixture);
QString refusedProtocol(CFixture &fixture);
QString finishInStart(CFixture &fixture);
QString finishInStop(CFixture &fixture);
QString stopWhileCalling(CFixture &fixture);
QString boundedWrite(CFixture &fixture);
QString freeLogMutex(CFixture &fixture);

// checks_leaks.cpp: nothing is left of a server
QString noSlotLeft(CFixture &fixture);
QString noThreadLeft(CFixture &fixture);
QString noDescriptorLeft(CFixture &fixture);
QString noMemoryLeft(CFixture &fixture);

// checks_random.cpp
QString randomRun(CFixture &fixture);

// The steps that most checks share.

/// start(), one call that exchanges @a payloadBytes, and both ends' connected().
QString converse(CFixture &fixture, int payloadBytes);

/// The same, then stop() and the server's end.
QString wholeConversation(CFixture &fixture, int payloadBytes);

} // namespace Checks
