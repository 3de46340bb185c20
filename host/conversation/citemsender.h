// The sending side of a conversation: turns the items of a delivery into frames, one after another.
//
//   nothing --Offer--> offered --Welcome--> sending --Finish--> finished --Stored--> nothing
//
// Knows neither channel nor clock. Lives in the connection thread.
#pragma once

#include "host/conversation/csha256.h"
#include "host/conversation/messageframe.h"
#include "host/delivery/cdelivery.h"

class CItemSender
{
public:
    /// @param ofDelivery outlives the sender
    explicit CItemSender(CDelivery &ofDelivery);
    ~CItemSender();

    CItemSender(const CItemSender &) = delete;
    CItemSender &operator=(const CItemSender &) = delete;

    /// The next frame to send, of at most about @a room bytes; an empty array: nothing to say now.
    /// Let go of it before the next call: its memory serves again.
    QByteArray nextFrame(int room);

    /// Takes an answer of the other side.
    ///
    /// @param event what people should know, if anything
    /// @return null, or what is wrong with the answer: a fault of the protocol
    QString takeAnswer(const AnswerFrame &answer, QString *event);

    /// Whether the delivery is over: all confirmed, or given up.
    bool isDone() const { return state == Over; }

    /// Whether data is on its way: the other side has nothing to say meanwhile.
    bool isSending() const { return state == Sending; }

private:
    enum State
    {
        Nothing,
        Offered,
        Sending,
        Finished,
        Over,
    };

    bool openItem();
    QByteArray offer();
    void makeData(int room);
    void giveUp(CDelivery::State reason, const QString &trouble);
    void closeFile();

    CDelivery &delivery;
    State state = Nothing;
    const CDelivery::Item *item = nullptr;
    quint32 number = 0; // of the item within the connection
    int file = -1;      // descriptor
    qint64 done = 0;    // bytes of the item
    CSha256 sha;
    QByteArray digest; // of the item, when it is finished
    QByteArray frame;  // a Data frame, or empty
};
