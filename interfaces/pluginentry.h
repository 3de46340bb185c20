// The door of a channel library: four functions with C linkage.
//
// A host resolves them by the names below and calls them in this order:
//   1. apiVersion      anything but channelApiVersion: do not go on
//   2. initDebug       before any other call; all operations log and trace through it
//   3. instance        as often as wanted; then create() a server for each channel
//   4. (use)           equip and start the servers; stop them and wait for finished()
//   5. deleteInstance  the plug-in object; servers may outlive it
// The library stays loaded until the process ends: a worker that could not be ended may still be
// executing its code.
#pragma once

#include "interfaces/cchannelplugin.h"

struct DebugData; // the logging state shared by all modules of a process

/// The version of this contract.
constexpr int channelApiVersion = 16;

using ApiVersionFunction = int (*)();
using InitDebugFunction = void (*)(DebugData *data);
using InstanceFunction = CChannelPlugin *(*)();
using DeleteInstanceFunction = void (*)(CChannelPlugin *plugin);

constexpr char apiVersionSymbol[] = "apiVersion";
constexpr char initDebugSymbol[] = "initDebug";
constexpr char instanceSymbol[] = "instance";
constexpr char deleteInstanceSymbol[] = "deleteInstance";
