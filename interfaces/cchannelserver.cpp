// The parts of the server contract that every module compiles for itself.
#include "interfaces/cchannelserver.h"

CChannelServer::CChannelServer(QObject *parent) : QObject(parent) {}

CChannelServer::~CChannelServer()
{
    delete protocolFactory;
}

void CChannelServer::start() {}

void CChannelServer::stop() {}

void CChannelServer::settingsWasChanged() {}
