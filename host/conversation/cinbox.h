// Where received messages lie, and how one comes into being, exactly once.
//
//   messages/incomplete/KEY/          while it arrives; also after a crash, until the rest comes
//   messages/incomplete/KEY.offer     which message that is; only of one that can be continued
//   messages/incomplete/KEY.list      what is in it; only of a tree
//   messages/stored.index             what has been stored, for good
//   messages/handout/KEY/             stored, its contents on their way into the folder of handOutTo()
//   messages/input/00000042/          afterwards, whole:
//       message.txt                       who sent it, when, what it is, SHA-256
//       text.txt, the file, or the tree   the contents under their own name
//
// KEY is made of the sender's key and the message's identity, so nobody can touch another's messages.
// A message gets into input/ in three steps: its bytes are synced; its KEY is written into the index and
// synced; its directory is renamed, and that is synced. After a crash between the last two the renaming
// is made up for. So whatever ends the process, a message is in input/ once and whole, and a sender
// that asks again hears that it is stored. Where contents go into a folder of the user's, they go there in
// the same way: what a crash has left in handout/ is put there at the next start.
//
// One process at a time receives (CTransportLock).
#pragma once

#include "common/descriptor.h"
#include "host/conversation/cincomingmessage.h"
#include "host/conversation/cstoredindex.h"
#include "host/conversation/messageframe.h"

#include <QByteArray>
#include <QDir>
#include <QString>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

class CInbox;

/// What one connection receives. [connection thread], unless noted
class CInboxSession
{
public:
    /// @param senderKey fingerprint that the sender has proved
    /// @param onSuperseded another connection has taken over a message of this one: this one has to end.
    ///        [any thread], must not wait
    CInboxSession(CInbox &inbox, const QByteArray &senderKey, std::function<void()> onSuperseded);
    ~CInboxSession();

    CInboxSession(const CInboxSession &) = delete;
    CInboxSession &operator=(const CInboxSession &) = delete;

    struct Begun
    {
        AnswerFrame::Verdict verdict = AnswerFrame::Send;
        QByteArray digest;                         // when Stored
        QString reason;                            // when Later or Refused
        std::unique_ptr<CIncomingMessage> message; // when Send; call catchUp() first
    };

    /// Begins or continues a message. May wait for the disk.
    Begun begin(const OfferFrame &offer);

    struct Outcome
    {
        QString directory; // where the message is now; null: not stored, try again later
        QString error;     // why it is not stored
        QString trouble;   // stored, but not where the user wants it
    };

    /// Stores finished messages, in order. Blocks until they are on the disk.
    std::vector<Outcome> commit(const std::vector<CIncomingMessage *> &messages);

private:
    friend class CInbox;

    bool syncAll(const std::vector<CIncomingMessage *> &messages) const;

    CInbox &box;
    const QByteArray sender;
    const std::function<void()> superseded;
    const std::shared_ptr<std::atomic<int>> writers = std::make_shared<std::atomic<int>>(0);
    bool isSuperseded = false; // guarded by the inbox's mutex
};

/// The inbox of one secrecy level. [any thread]; outlives its sessions.
class CInbox
{
public:
    explicit CInbox(int level);

    /// The contents of what is stored from now on go into this folder; the descriptions stay. Before
    /// prepare().
    /// @return null on success, else a text for people
    QString handOutTo(const QString &where);

    /// Creates the directories, reads the index, and makes up for what a crash has left. By the process that
    /// holds the transport's lock.
    /// @return null on success, else a text for people
    QString prepare();

    /// @return null when the disk has room for @a bytes more, else a text for people
    QString roomTrouble(qint64 bytes) const;

    /// Bytes in the inbox from abonents that nobody has invited. May take a while the first time.
    /// @param anew looks at the directories even when they have been looked at before
    qint64 strangerBytes(bool anew);
    void addStrangerBytes(qint64 bytes);

    /// Written into the description of what a stranger has sent.
    static QString strangerMark();

private:
    friend class CInboxSession;
    friend class CIncomingMessage;

    struct Owned
    {
        CInboxSession *session;
        CIncomingMessage *message;
    };

    QString place(const QByteArray &key, QString *directory);
    QString moveIntoInput(const QDir &place, const QByteArray &key, QString *directory);
    QString handOut(QString *directory);
    void sortAsStored(QStringList *names) const;
    void release(CIncomingMessage *message);

    const QDir messages;
    const QDir incomplete;
    const QDir leaving;
    const QDir input;
    QString folder;   // of handOutTo(), or null
    std::mutex mutex; // guards the following; the disk may be waited for under it
    CStoredIndex index;
    std::map<QByteArray, Owned> owners;
    CDescriptor incompleteDescriptor;
    qint64 strangers = -1; // bytes; -1: not looked yet
};
