// What waits for one abonent, in memory: the entries of the outbox that are addressed to it.
//
// The post office (server thread) puts entries in; the one connection that has attached itself (connection
// thread) takes messages out. What was under way when it detaches waits again.
#pragma once

#include "host/conversation/coutbox.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

/// A connection that sends.
class CQueueUser
{
public:
    /// There is something new. Must not wait and not call back. [any thread]
    virtual void wake() = 0;

protected:
    ~CQueueUser() = default;
};

/// [any thread]
class CSendQueue
{
public:
    /// A message of an entry.
    struct Job
    {
        std::shared_ptr<COutboxEntry> entry; // null: none
        std::size_t index = 0;
        bool isAgain = false; // it was under way before: the other side may have it

        const OutgoingMessage &message() const { return entry->messages[index]; }
    };

    /// Why an attempt has come to nothing: exit codes of a program that does not wait any longer. The numbers
    /// are in files: see COutboxEntry::noteAttempt().
    enum Code
    {
        NoTrouble = 0,
        NoAnswer = 3,
        SomebodyElse = 4,
        NotDelivered = 5,
        KeyChanged = 8,
        Refused = 9, // by the rules of one side
        NoRoom = 10, // the other side has none
        NameTaken = 11,
        OtherVersion = 12,
    };
    struct Trouble
    {
        Code code = NoTrouble;
        QString reason;
    };

    /// @param onChange something is done, or has failed: the post office looks again. Must not wait.
    explicit CSendQueue(std::function<void()> onChange) : changed(std::move(onChange)) {}

    /// Adds an entry; one that is there already stays as it is.
    /// @param isOld it may have been under way before, in a process that has ended
    /// @return whether it was added
    bool add(const std::shared_ptr<COutboxEntry> &entry, bool isOld);

    /// Takes an entry out, whatever is under way. @return it, or null when it is not there
    std::shared_ptr<COutboxEntry> withdraw(const QString &number);

    /// What of an entry was refused waits again.
    void retry(const QString &number);

    bool hasWaiting() const;

    /// Where the first entry that waits is to go by what the user said with it; an empty address: nothing was
    /// said.
    std::pair<QString, int> address() const;

    /// Notes for those who wait why an attempt has come to nothing.
    void noteAttempt(const Trouble &why);

    /// @return whether the connection may send now: one at a time does
    bool attach(CQueueUser *connection);
    void detach(CQueueUser *connection);
    bool isAttached() const;

    /// The next message that is not under way, now under way: texts first, in their order.
    /// @param mayBeLarge files above @a smallBytes as well
    Job takeUp(qint64 smallBytes, bool mayBeLarge);

    void sent(const Job &job, qint64 bytes);
    void stored(const Job &job, const QByteArray &digest);
    void refused(const Job &job, const QString &reason);

    void setTrouble(Code code, const QString &reason);
    void setTroubleUnlessSet(Code code, const QString &reason);
    Trouble takeTrouble();

    /// Tells those who watch how far the message under way is.
    void showLive();

private:
    struct Entry
    {
        std::shared_ptr<COutboxEntry> entry;
        std::vector<bool> underWay;
        std::vector<bool> wasUnderWay;
        std::size_t next = 0;     // no message before it waits, texts apart
        std::size_t nextText = 0; // no text before it waits
    };

    Entry *find(const COutboxEntry *entry);
    bool finish(const Job &job, COutboxEntry::State state, const QString &detail);

    const std::function<void()> changed;
    mutable std::mutex mutex;   // guards the following
    std::vector<Entry> waiting; // in the order of their numbers
    CQueueUser *user = nullptr;
    Trouble trouble;
    Job current; // what bytes are being sent of
    qint64 currentBytes = 0;
    qint64 shownBytes = 0;
};

/// The queues of all abonents. [any thread]
class CSendQueues
{
public:
    /// @param onChange as above; told the filtered name. Before the first connection
    void setListener(std::function<void(QString)> onChange) { changed = std::move(onChange); }

    /// The queue of an abonent; made when there is none. It lives as long as this object.
    std::shared_ptr<CSendQueue> of(const QString &filteredName);

private:
    std::function<void(QString)> changed;
    std::mutex mutex; // guards the queues
    std::map<QString, std::shared_ptr<CSendQueue>> queues;
};
