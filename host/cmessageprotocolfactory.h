// Makes a message protocol for each connection of one channel server.
#pragma once

#include "host/cmessageprotocol.h"
#include "interfaces/cprotocolfactory.h"

class CMessageProtocolFactory : public CProtocolFactory
{
public:
    explicit CMessageProtocolFactory(const CMessageProtocol::Surroundings &around) : surroundings(around) {}

    CAbstractProtocol *createProtocol(CChannel *channel) override
    {
        return new CMessageProtocol(channel, surroundings);
    }

private:
    const CMessageProtocol::Surroundings surroundings;
};
