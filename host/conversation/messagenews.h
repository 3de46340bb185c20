// What has become of a message, for people and scripts.
#pragma once

#include "host/conversation/messageframe.h"
#include "host/delivery/cmessagejournal.h"

#include <functional>

struct MessageNews
{
    JournalEntry row; // as it goes into the journal of messages, but for its date
    OfferFrame::Kind kind = OfferFrame::File;
    bool isIncoming = false;
    QString text;      // beginning of a text that has arrived
    QString directory; // of a message that has arrived
    qint64 done = -1;  // bytes of one that has broken off
};

/// [connection thread]
using MessageNewsListener = std::function<void(const MessageNews &)>;
