// The conversation over one connection: greetings, items both ways, keep-alive, an orderly end.
//
//   start --> greeting --both have named themselves--> talking --Bye, stop, silence, fault--> ended
//
// It holds nothing but a CChannel, and no timer polls it: it looks at the channel whenever its thread's
// event dispatcher has woken, which is after the bytes have arrived or room to write has come. The
// same class answers calls and places them; a placed call works off a delivery.
#pragma once

#include "host/conversation/citemreceiver.h"
#include "host/conversation/citemsender.h"
#include "host/conversation/cunnamedcallers.h"
#include "host/conversation/messageframe.h"
#include "interfaces/cabstractprotocol.h"

#include <QElapsedTimer>
#include <QTimer>

#include <atomic>
#include <functional>
#include <memory>

class CDelivery;
class CJournal;
class CMessageStore;

class CMessageProtocol : public CAbstractProtocol, private CUnnamedCaller
{
    Q_OBJECT

public:
    /// What all conversations of the program share. Everything pointed to outlives them.
    struct Context
    {
        QString ownName;
        CMessageStore *store = nullptr;
        CJournal *journal = nullptr;
        /// What tells callers of different addresses apart, by channel label; [any thread].
        std::function<QString(const QString &label)> originOf;
        CUnnamedCallers *unnamed = nullptr;
        CDelivery *delivery = nullptr; // for placed calls; may be null
    };

    CMessageProtocol(CChannel *ownedChannel, const Context &around);
    ~CMessageProtocol() override;

    void start() override;

    /// [any thread], also under a lock of the caller's: it only leaves word.
    void stop() override;

private:
    void giveWay() override; // [any thread]

    void work();
    void workAgain();
    void receive();
    void take(const FrameView &frame);
    void takeGreeting(const std::optional<GreetingFrame> &greeting);
    void takeAnswer(const AnswerFrame &answer);
    void react(const CItemReceiver::Reaction &reaction);
    void transmit();
    QByteArray nextFrame(int room);
    void lookAtClock();

    void breakOff(const QString &how);
    void sayGoodbye(const QString &reason);
    void end(const QString &trouble);

    enum Request
    {
        NoRequest,
        Stop,
        GiveWay,
    };

    const Context context;
    std::atomic<int> request{NoRequest}; // any thread

    // The connection thread's own.
    bool isPlaced = false; // we have called
    bool isGreeted = false;
    bool isEnded = false;
    bool isWorkQueued = false;
    bool isPongDue = false;
    bool isPingSent = false; // and not answered yet
    CFrameReader reader;
    CItemReceiver receiver;
    std::unique_ptr<CItemSender> sender; // null: nothing to send
    QByteArray outbox;                   // short frames that wait for room
    QTimer deadline;
    QElapsedTimer sinceExchange; // since bytes moved last, either way
};
