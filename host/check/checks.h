// The checks that are more than a rule. Each gets a loaded library (but for the first two); one that
// fails or has to be skipped throws (checkfailure.h).
#pragma once

class CFixture;

namespace Checks {

// checks_plugin.cpp: the library and its plug-in object
void entryPoints(CFixture &fixture);
void apiVersion(CFixture &fixture);
void pluginObject(CFixture &fixture);
void pluginThreads(CFixture &fixture);
void callDelay(CFixture &fixture);
void metaObject(CFixture &fixture);
void freshServer(CFixture &fixture);

// checks_server.cpp: one server, mostly with one or two calls
void startStop(CFixture &fixture);
void queries(CFixture &fixture);
void callConnects(CFixture &fixture);
void conversation(CFixture &fixture); // what the checks that are a rule look at
void restart(CFixture &fixture);
void manyCalls(CFixture &fixture);
void disconnectById(CFixture &fixture);
void disconnectByName(CFixture &fixture);
void unknownConnection(CFixture &fixture);
void settingsChange(CFixture &fixture);
void keepAlive(CFixture &fixture);
void queuedCalls(CFixture &fixture);
void stopReachesAll(CFixture &fixture);

// checks_channel.cpp: what a protocol may rely on
void wakeForBytes(CFixture &fixture);
void wakeForRoom(CFixture &fixture);
void wakeForEnd(CFixture &fixture);
void idleIsQuiet(CFixture &fixture);
void bytesBeforeEnd(CFixture &fixture);
void boundedWrite(CFixture &fixture);

// checks_trouble.cpp: what goes wrong in a host's life
void silentAbonent(CFixture &fixture);
void garbageData(CFixture &fixture);
void somebodyElse(CFixture &fixture);
void nobodyNamed(CFixture &fixture);
void refusedProtocol(CFixture &fixture);
void finishInStart(CFixture &fixture);
void finishInStop(CFixture &fixture);
void stopWhileCalling(CFixture &fixture);
void quietForLong(CFixture &fixture);
void freeLogMutex(CFixture &fixture);
void sharedLog(CFixture &fixture);

// checks_leaks.cpp: nothing is left of a server
void noSlotLeft(CFixture &fixture);
void noObjectLeft(CFixture &fixture);
void noThreadLeft(CFixture &fixture);
void noDescriptorLeft(CFixture &fixture);
void noMemoryLeft(CFixture &fixture);

// checks_random.cpp
void randomRun(CFixture &fixture);

// The steps that most checks share.

/// start(), one call that exchanges @a payloadBytes, and both ends' connected().
void converse(CFixture &fixture, int payloadBytes);

/// The same, then stop() and the server's end.
void wholeConversation(CFixture &fixture, int payloadBytes);

} // namespace Checks
