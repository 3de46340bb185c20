// A layer between a host and a channel that keeps the contract, and breaks it at one place: of a good
// channel it makes a faulty one, of a good host a faulty host.
//
// The fault is named by the environment variable FAULT, "POINT ACTION [NUMBER]"; without it the layer
// passes everything on as it is. A point is an operation of the contract, such as server.stop. What can
// go wrong at any of them:
//
//   drop N     not passed on, from the Nth time on         twice N    passed on twice, from the Nth time on
//   sleep MS   passed on after a while                     thread N   passed on from a thread of its own
//   late MS    ... from a thread, when the caller has gone queue MS   ... from the server's thread, later
//   lock N     passed on while the log's mutex is held     throw N    an exception comes out of it
//   abort N    ends the process
//
// A value on its way, such as connected.id, knows "add N", or as a text "is TEXT".
#pragma once

#include "interfaces/pluginentry.h"

namespace FaultyLayer {

/// The four functions of the channel below.
void over(ApiVersionFunction apiVersion, InitDebugFunction initDebug, InstanceFunction instance,
          DeleteInstanceFunction deleteInstance);

int apiVersion();
void initDebug(DebugData *data);
CChannelPlugin *instance();
void deleteInstance(CChannelPlugin *plugin);

/// @return whether the fault has this point and this action, and its turn has come
bool fault(const char *point, const char *action);

} // namespace FaultyLayer
