// Carries the types of the binary contract into a library of their own, where abidw finds them: the
// plug-in itself shows only functions. Built for that test with a stand-in for Qt, so that the baseline
// holds our part of the contract and none of Qt's. Never run.
#include "common/debugdata.h"
#include "interfaces/cabstractprotocol.h"
#include "interfaces/cchannelserver.h"
#include "transportIp/ipsettings.h"
#include "transportIp/main.h"

extern "C" {
int apiVersion()
{
    return channelApiVersion;
}
void initDebug(DebugData *) {}
CChannelPlugin *instance()
{
    return nullptr;
}
void deleteInstance(CChannelPlugin *) {}
}

// One parameter of each type; what they refer to comes along.
void contract(CChannelPlugin &, CChannelServer &, CChannel &, CAbstractProtocol &, CProtocolFactory &,
              CChannelMonitor &, CJournal &, DebugData &, Tabulation &, ChannelIpSettings &,
              AbonentIpSettings &, JournalKind)
{}
