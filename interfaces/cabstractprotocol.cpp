// The parts of the protocol contract that every module compiles for itself.
#include "interfaces/cabstractprotocol.h"

CAbstractProtocol::CAbstractProtocol(CChannel *ownedChannel, QObject *parent)
    : QObject(parent), channel(ownedChannel)
{}

CAbstractProtocol::~CAbstractProtocol()
{
    delete channel;
}

void CAbstractProtocol::start()
{
    wasUseful = false;
}

void CAbstractProtocol::stop() {}
