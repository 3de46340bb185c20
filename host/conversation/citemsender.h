// The sending side of a conversation: turns the messages of a queue into frames, many under way at once.
//
//   small:  offered --all its bytes and Finish follow at once--> finished --Stored--> gone
//   large:  offered --Send N--> checking the first N bytes --> sending --Finish--> finished --Stored--> gone
//
// Knows neither channel nor clock. Lives in the connection thread.
#pragma once

#include "host/conversation/cchecksum.h"
#include "host/conversation/csendqueue.h"
#include "host/conversation/ctransferboard.h"
#include "host/conversation/messageframe.h"

#include <map>
#include <memory>
#include <vector>

class CItemSender
{
public:
    /// What people should know.
    struct Notice
    {
        CSendQueue::Job job;
        bool isStored = false;
        QByteArray digest; // when stored
        QString reason;    // when not
    };

    /// @param fromQueue this connection has attached itself to it
    explicit CItemSender(std::shared_ptr<CSendQueue> fromQueue);
    ~CItemSender();

    CItemSender(const CItemSender &) = delete;
    CItemSender &operator=(const CItemSender &) = delete;

    /// Shows on @a where what takes long.
    /// @param abonent the other side
    void showOn(CTransferBoard *where, const QString &abonent);

    /// The next frame to send, of at most about @a room bytes; an empty array: nothing to say now.
    /// Let go of it before the next call: its memory serves again.
    QByteArray nextFrame(int room);

    /// Whether nextFrame() was empty only because files were read: it has more to do at once.
    bool isBusy() const { return busy; }

    /// Takes an answer of the other side.
    /// @return null, or what is wrong with the answer: a fault of the protocol
    QString takeAnswer(const AnswerFrame &answer, std::vector<Notice> *notices);

    /// What has gone wrong on this side since the last call.
    std::vector<Notice> takeNotices() { return std::exchange(ownNotices, {}); }

    /// Whether anything is offered and not answered for good.
    bool isUnderWay() const { return !flights.empty(); }

    /// Whether the other side had no room for something: that has to be tried again, over another connection.
    bool isPostponed() const { return postponed > 0; }
    const QString &postponedReason() const { return reason; }

    /// Bytes whose storing is waited for.
    qint64 unconfirmed() const;

private:
    enum State
    {
        Offered,
        Checking, // reading what the other side has
        Ready,    // its turn to be sent comes
        Sending,
        Finished,
    };

    struct Flight
    {
        CSendQueue::Job job;
        State state = Offered;
        bool isAtOnce = false;
        qint64 offeredSize = 0; // the message may be refreshed meanwhile
        bool isOver = false;    // answered before its bytes were all sent
        qint64 have = 0;        // what the other side has of it
        QByteArray haveCheck;
        std::unique_ptr<COutgoingReader> reader;
        CCheckSum sum; // of what is done
        qint64 done = 0;
        std::shared_ptr<CTransferBoard::Transfer> shown;
    };
    using Flights = std::map<quint32, Flight>;

    QByteArray offerNext();
    QByteArray offer(const CSendQueue::Job &job, bool isAnew);
    QByteArray check(Flights::iterator flight);
    QByteArray send(Flights::iterator flight, int room);
    bool isRead(Flights::iterator flight, char *bytes, int size, QByteArray *anew);
    void giveUp(Flights::iterator flight, const QString &why);

    const std::shared_ptr<CSendQueue> queue;
    CTransferBoard *board = nullptr;
    QString remoteName;
    Flights flights;
    quint32 current = 0; // number of the one being read, 0: none
    quint32 last = 0;    // number given out
    qint64 eagerBytes = 0;
    int largeOffers = 0;
    bool busy = false;
    int postponed = 0;
    QString reason;
    std::vector<Notice> ownNotices;
    QByteArray frame; // a Data frame, or empty
};
