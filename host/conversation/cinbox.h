// Where received messages lie, and how one comes into being, exactly once.
//
//   messages/incomplete/KEY/          while it arrives; also after a crash, until the rest comes
//   messages/incomplete/KEY.offer     which message that is; only of one that can be continued
//   messages/incomplete/KEY.list      what is in it; only of a tree
//   messages/stored.index             what has been stored, for good
//   messages/input/00000042/          afterwards, whole:
//       message.txt                       who sent it, when, what it is, SHA-256
//       text.txt, the file, or the tree   the contents under their own name
//
// KEY is made of the sender's key and the message's identity, so nobody can touch another's messages.
// A message gets into input/ in three steps: its bytes are synced; its KEY is written into the index and
// synced; its directory is renamed, and that is synced. After a crash between the last two the renaming
// is made up for. So whatever ends the process, a message is in input/ once and whole, and a sender
// that asks again hears that it is stored.
//
// One process at a time receives (CTransportLock).
#pragma once

#include "host/conversation/csha256.h"
#include "host/conversation/cstoredindex.h"
#include "host/conversation/messageframe.h"
#include "host/conversation/treelist.h"

#include <QByteArray>
#include <QDir>
#include <QString>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

class CInbox;
class CInboxSession;

/// A message that is arriving. What has arrived stays on the disk when the object goes.
/// [connection thread] of its session
class CIncomingMessage
{
public:
    ~CIncomingMessage();

    CIncomingMessage(const CIncomingMessage &) = delete;
    CIncomingMessage &operator=(const CIncomingMessage &) = delete;

    /// Hashes what is on the disk from before, at most about @a budget bytes of it.
    /// @return whether all of it is hashed now; have() and digest() then tell of it
    bool catchUp(qint64 budget);

    qint64 have() const { return total; }

    /// SHA-256 of what has arrived.
    QByteArray digest() const { return sha.soFar(); }

    /// Appends to the contents. @return null on success, else a text for people
    QString append(std::string_view bytes);

    /// All bytes have come: gives files their times and rights, and writes the description.
    /// @return null on success, else a text for people
    QString finish(const QByteArray &description);

    /// Forgets what has arrived, on the disk as well.
    void discard();

    /// Whether the tree's list, or a name in it, is not acceptable: append() has failed for good.
    bool isBad() const { return bad; }

    const OfferFrame &offer() const { return what; }

private:
    friend class CInbox;
    friend class CInboxSession;
    CIncomingMessage() = default;

    struct Part
    {
        QByteArray path; // within the message's directory
        bool isDirectory = false;
        bool isExecutable = false;
        qint64 modifiedNs = 0;
        qint64 size = 0;
    };

    bool open(bool mayContinue);
    bool readLayout();
    bool takeLayout();
    bool enter();
    bool leave();
    int openParent(const QByteArray &path, QByteArray *name) const;
    bool settleDirectories();
    void closeAll();
    QString trouble(const char *thing) const;
    QByteArray partName(const char *ending) const;

    CInbox *inbox = nullptr;
    QByteArray key;
    OfferFrame what;
    std::mutex mutex;       // held while the files are in use: another connection may take them over
    bool abandoned = false; // that has happened, or the message is stored
    bool isOwned = false;   // the inbox knows of it
    bool bad = false;
    int incomplete = -1; // descriptors: of incomplete/, the message's directory, its list, the current file
    int directory = -1;
    int list = -1;
    int file = -1;
    QByteArray listBytes;
    bool hasLayout = false;
    std::vector<Part> parts;
    std::size_t part = 0; // the current one
    qint64 partDone = 0;  // its bytes
    qint64 total = 0;     // bytes that have arrived
    qint64 flushed = 0;   // how far the disk has been told to begin with the current file
    bool isCaughtUp = true;
    CSha256 sha;
    std::vector<int> unsynced; // descriptors of what is yet to be synced, when it is little
    bool isMuch = false;       // more than that: the whole file system
};

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
        QString error;
    };

    /// Stores finished messages, in order. Blocks until they are on the disk.
    std::vector<Outcome> commit(const std::vector<CIncomingMessage *> &messages);

private:
    friend class CInbox;

    bool syncAll(const std::vector<CIncomingMessage *> &messages) const;

    CInbox &box;
    const QByteArray sender;
    const std::function<void()> superseded;
    bool isSuperseded = false; // guarded by the inbox's mutex
};

/// The inbox of one secrecy level. [any thread]; outlives its sessions.
class CInbox
{
public:
    explicit CInbox(int level);
    ~CInbox();

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

    QString moveIntoInput(const QByteArray &key, QString *directory);
    void release(CIncomingMessage *message);

    const QDir messages;
    const QDir incomplete;
    const QDir input;
    std::mutex mutex; // guards the following; the disk may be waited for under it
    CStoredIndex index;
    std::map<QByteArray, Owned> owners;
    int incompleteDescriptor = -1;
    qint64 strangers = -1; // bytes; -1: not looked yet
};
