// Makes a message protocol for each connection of one channel server.
#pragma once

#include "host/conversation/cmessageprotocol.h"
#include "interfaces/cprotocolfactory.h"

class CMessageProtocolFactory : public CProtocolFactory
{
public:
    explicit CMessageProtocolFactory(const CMessageProtocol::Context &around) : context(around) {}

    CAbstractProtocol *createProtocol(CChannel *channel) override
    {
        return new CMessageProtocol(channel, context);
    }

private:
    const CMessageProtocol::Context context;
};
