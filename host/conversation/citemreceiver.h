// The receiving side of a conversation: messages that the other side offers go into the inbox.
//
//   Offer --Later, Refused, Stored--> passed over
//         --Send--> Data ... Finish --> waiting for its group --settle()--> Stored
//
// Knows neither channel nor clock. Lives in the connection thread.
#pragma once

#include "host/conversation/cinbox.h"
#include "host/conversation/ctransferboard.h"
#include "host/conversation/messageframe.h"
#include "host/delivery/generalsettings.h"

#include <functional>
#include <map>
#include <memory>
#include <vector>

class CItemReceiver
{
public:
    /// Whom the messages come from.
    struct Sender
    {
        QString name;
        QByteArray key; // fingerprint
        bool isStranger = false;
        StrangerQuotas quotas;           // for strangers
        int messagesToday = 0;           // from this one so far
        CTransferBoard *board = nullptr; // shows what takes long; may be null
    };

    /// What people should know.
    struct Notice
    {
        bool isStored = false;
        OfferFrame offer;
        QByteArray digest;
        QString text;      // beginning of a text
        QString directory; // when stored
        QString reason;    // when not; when stored, why it is not in the user's folder, or null
    };

    /// What has to follow.
    struct Reaction
    {
        QByteArray reply; // frames for the other side, or empty
        QString fault;    // the other side broke the protocol: how; or null
        std::vector<Notice> notices;
    };

    /// @param inbox outlives the receiver
    /// @param onSuperseded see CInboxSession
    CItemReceiver(CInbox &inbox, const Sender &sender, std::function<void()> onSuperseded);

    Reaction takeOffer(const OfferFrame &offer);
    Reaction takeData(quint32 number, std::string_view bytes);
    Reaction takeFinish(const FinishFrame &finish);

    /// Reads some of what is on the disk of messages that go on. Call again while isBusy().
    Reaction work();
    bool isBusy() const { return !catchingUp.empty(); }

    /// Stores what is complete, as a group; blocks until it is on the disk.
    Reaction settle();
    bool wantsToSettle() const { return finished.size() >= groupSize; }

    /// A message of which a part has come.
    struct Begun
    {
        OfferFrame offer;
        qint64 arrived = 0;
    };

    /// What would break off if the conversation ended now.
    std::vector<Begun> begun() const;

    /// Whether anything is arriving.
    bool isUnderWay() const { return !items.empty(); }

private:
    static constexpr std::size_t groupSize = 256;

    struct Item
    {
        OfferFrame offer;
        std::unique_ptr<CIncomingMessage> message; // null: passed over
        qint64 arrived = 0;                        // in this connection and before
        bool isAnswered = false;                   // large ones: it may send
        QByteArray beginning;                      // of a text, to show it
        QByteArray digest;                         // when finished
        std::shared_ptr<CTransferBoard::Transfer> shown;
    };

    void show(Item &item);
    Reaction refuse(Item &item, AnswerFrame::Verdict verdict, const QString &reason);
    QString unacceptable(const OfferFrame &offer) const;
    QString overQuota(const OfferFrame &offer);
    QByteArray description(const Item &item) const;

    CInbox &box;
    const Sender from;
    CInboxSession session;
    std::map<quint32, Item> items;
    std::vector<quint32> catchingUp;
    std::vector<quint32> finished; // in the order they came
    quint32 last = 0;
    int refusals = 0;  // of this connection
    int taken = 0;     // messages of this connection
    QString heldTexts; // one had no room: no more texts are taken, so that they keep their order
};
