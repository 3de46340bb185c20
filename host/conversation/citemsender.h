// The sending side of a conversation: turns the items of a delivery into frames, one after another.
//
//   nothing --Offer--> offered --Welcome--> sending --Finish--> finished --Stored, Refused--> nothing
//
// An item that is refused or cannot be read fails, and the next one follows. A file that changes while it
// is being sent goes on as zero bytes, ends with a checksum that cannot be right, and is refused for it.
//
// Knows neither channel nor clock. Lives in the connection thread.
#pragma once

#include "host/conversation/cdelivery.h"
#include "host/conversation/csha256.h"
#include "host/conversation/messageframe.h"

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

    /// Whether the delivery is over: every item is confirmed or has failed.
    bool isDone() const { return state == Over; }

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
    bool openNext();
    QByteArray offer();
    void makeData(int room);
    void fillFromFile(char *payload, int size);
    QByteArray finish();
    void endItem();
    void closeFile();

    CDelivery &delivery;
    State state = Nothing;
    const CDelivery::Item *item = nullptr;
    quint32 number = 0; // of the item within the connection
    int file = -1;      // descriptor
    qint64 done = 0;    // bytes of the item
    QString spoiled;    // what has happened to the file meanwhile; null: nothing
    CSha256 sha;
    QByteArray digest; // of the item, when it is finished
    QByteArray frame;  // a Data frame, or empty
};
