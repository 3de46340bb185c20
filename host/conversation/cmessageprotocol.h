// The conversation over one connection: TLS, greetings, messages both ways, keep-alive, an orderly end.
//
//   start --> securing --TLS--> greeting --both are believed--> talking --Bye, stop, silence, fault--> ended
//
// It holds nothing but a CChannel, and no timer polls it: it looks at the channel whenever its thread's
// event dispatcher has woken, which is after the bytes have arrived or room to write has come. The same
// class answers calls and places them; either way it sends what waits for the abonent at the other end.
#pragma once

#include "host/conversation/citemreceiver.h"
#include "host/conversation/citemsender.h"
#include "host/conversation/csendqueue.h"
#include "host/conversation/cunnamedcallers.h"
#include "host/conversation/messageframe.h"
#include "host/conversation/messagenews.h"
#include "host/delivery/ccontacts.h"
#include "host/delivery/cmessagejournal.h"
#include "host/delivery/ctlssession.h"
#include "interfaces/cabstractprotocol.h"

#include <QElapsedTimer>
#include <QTimer>

#include <atomic>
#include <functional>
#include <memory>

class CIdentity;
class CInbox;
class CJournal;

/// What a program learns by asking an abonent whether it is there. [any thread] writes, one at a time
struct PingResult
{
    /// How far the call has come.
    enum Stage
    {
        Called,
        Connected,
        Secured,  // TLS: the other side has proved its key
        Greeted,  // it has said its name
        Named,    // which is the called one
        Believed, // and has the key that belongs to it
    };

    Stage reached = Called;
    bool isTurnedAway = false; // the other side has ended the call; trouble says why
    bool isAnswered = false;
    QString name;
    QString program; // its version
    QByteArray key;  // fingerprint
    qint64 roundTripUs = 0;
    int code = 0;    // CSendQueue::Code, when not answered; 0: the call came to nothing
    QString trouble; // likewise; null: the call came to nothing
};

class CMessageProtocol : public CAbstractProtocol, private CUnnamedCaller, private CQueueUser
{
    Q_OBJECT

public:
    /// What all conversations of the program share. Everything pointed to outlives them.
    struct Context
    {
        QString ownName;
        quint16 ownPort = 0; // shown to others
        const CIdentity *identity = nullptr;
        CContacts *contacts = nullptr;
        CInbox *inbox = nullptr;       // null: this program receives nothing
        CSendQueues *queues = nullptr; // null: and sends nothing
        CJournal *journal = nullptr;   // of the channels, for people
        CMessageJournal *messages = nullptr;
        /// What tells callers of different addresses apart, by channel label; [any thread].
        std::function<QString(const QString &label)> originOf;
        CUnnamedCallers *unnamed = nullptr;
        MessageNewsListener onNews;      // shown to people; may be empty
        CTransferBoard *board = nullptr; // likewise, while it comes and goes; may be null
        int lingerMs = 0;                // how long a call that we have placed stays when all is said
        bool isWatched = false;          // somebody else tells people what has been delivered
        PingResult *ping = nullptr;      // only asks whether the abonent is there
    };

    CMessageProtocol(CChannel *ownedChannel, const Context &around);
    ~CMessageProtocol() override;

    void start() override;

    /// [any thread], also under a lock of the caller's: it only leaves word.
    void stop() override;

private:
    void giveWay() override; // [any thread]
    void wake() override;    // [any thread]
    void superseded();       // [any thread]
    void leaveWord(int what);
    void reach(PingResult::Stage stage);

    void work();
    void workAgain();
    void receive();
    bool takeBytes(int *turn);
    void secured();
    void take(const FrameView &frame);
    void takeHello(const std::optional<HelloFrame> &hello);
    void believe(const HelloFrame &hello, const Judgement &judgement);
    void takeBye(const ByeFrame &bye);
    void takeAnswer(const AnswerFrame &answer);
    void react(const CItemReceiver::Reaction &reaction);
    void tell(const CItemReceiver::Notice &notice);
    void tell(const CItemSender::Notice &notice);
    void transmit();
    bool gather(int room);
    QByteArray nextFrame(int room);
    void lookAtClock();
    bool isUnderWay() const;
    int clockMs() const;
    qint64 patienceMs() const;

    void announce(const MessageNews &news);
    void announceBroken(const QString &trouble);
    void noteTrouble(CSendQueue::Code code, const QString &reason);
    void refuseVersion1();
    void breakOff(const QString &how, int code = CSendQueue::NotDelivered);
    void sayGoodbye(ByeFrame::Code code, const QString &reason);
    void end(int troubleCode, const QString &trouble);

    enum Request
    {
        NoRequest,
        GiveWay,
        Superseded,
        Stop,
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
    QString calledFilteredName;
    std::unique_ptr<CTlsSession> tls;
    QByteArray firstBytes; // of the other side, until TLS is established
    CFrameReader reader;
    std::unique_ptr<CItemReceiver> receiver; // null: before the greeting, or this program receives nothing
    std::shared_ptr<CSendQueue> queue;       // null: we do not send
    std::unique_ptr<CItemSender> sender;     // null: likewise
    QByteArray outbox;                       // short frames that wait for room
    QTimer deadline;
    QElapsedTimer sinceExchange; // since bytes moved last, either way
    QElapsedTimer sincePing;
    qint64 moved = 0; // bytes of messages in this connection
};
