// The receiving side of a conversation: items that the other side offers go into the store.
//
// Knows neither channel nor clock. Lives in the connection thread.
#pragma once

#include "host/conversation/cmessagestore.h"
#include "host/conversation/csha256.h"
#include "host/conversation/messageframe.h"

class CItemReceiver
{
public:
    explicit CItemReceiver(CMessageStore *inStore) : store(inStore) {}

    /// What has to follow a frame.
    struct Reaction
    {
        QByteArray reply;    // a frame for the other side, or empty
        QString event;       // for people, or null
        QString error;       // for people: an item was lost; or null
        QString fault;       // the other side broke the protocol: how; or null
        bool stored = false; // an item is safe now
    };

    /// @param sender the name of the other side, for the message's description
    Reaction takeOffer(const OfferFrame &offer, const QString &sender);
    Reaction takeData(std::string_view bytes);
    Reaction takeFinish(const FinishFrame &finish);

private:
    Reaction refuse(const QString &reason);
    QByteArray description(const QByteArray &digest) const;
    QString title() const;

    CMessageStore *store;
    OfferFrame current;
    QString from;
    std::unique_ptr<CIncomingMessage> message; // null: nothing under way, or the rest is passed over
    bool isOpen = false;                       // between an accepted offer and its end
    qint64 arrived = 0;
    int refusals = 0;     // of this connection
    QByteArray beginning; // of a text, to show it
    CSha256 sha;
};
