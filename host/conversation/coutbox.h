// What is to be sent, on the disk: nothing that `send` has accepted is lost by whatever happens afterwards.
//
//   messages/output/00000005/      one `send`: one or more messages to one abonent
//       message                        what it is; written last, so without it there is no entry
//       state                          what became of each message, a line each
//       live                           how far it is now, for those who watch; worth nothing after a restart
//       pack                           texts, lists of trees and small files, one behind the other
//       1, 2, ...                      large files: clones or hard links of the user's, else copies
//
// A clone or copy is as the file was when it was accepted. A hard link lasts when the user deletes or
// replaces the file; what is changed in place is noticed while it is sent, copied then, and sent anew.
//
// Any number of processes may add and read entries; only the one that holds CTransportLock sends and removes.
#pragma once

#include "common/descriptor.h"
#include "host/conversation/messageframe.h"

#include <QByteArray>
#include <QDateTime>
#include <QDir>
#include <QString>
#include <QStringList>

#include <atomic>
#include <memory>
#include <optional>
#include <vector>

/// A part of a message's bytes: a stretch of a file of the entry.
struct OutgoingPiece
{
    QByteArray file;
    qint64 offset = 0;
    qint64 size = 0;
    qint64 modifiedNs = -1; // of a hard link: how the file has to be; -1: the file is ours alone
};

/// One message.
struct OutgoingMessage
{
    OfferFrame offer; // its number is the connection's
    std::vector<OutgoingPiece> pieces;

    /// What to call it to people: "текст", or the name of the file.
    QString title() const;
};

/// What one `send` has accepted. [any thread], one at a time, but for isWithdrawn
class COutboxEntry
{
public:
    enum State
    {
        Waiting,
        Stored,
        Refused, // for good
    };

    QString number;    // the directory's name
    QString directory; // absolute
    QString abonent;
    QString address; // empty: the contact's
    int port = 0;
    QDateTime created;
    std::vector<OutgoingMessage> messages;
    std::vector<State> states;
    std::vector<QString> reasons; // of refusals
    QString lastAttempt;          // why it has not got through, when loaded

    /// The user wants it back: nothing of it is sent any more. Set once.
    std::atomic<bool> isWithdrawn{false};

    /// Reads an entry. @return null when there is none, or none of ours
    static std::shared_ptr<COutboxEntry> load(const QDir &output, const QString &number);

    /// Notes what has become of a message, for those who watch as well.
    void settle(std::size_t index, State state, const QString &detail);

    /// Notes why a message is still here after an attempt.
    /// @param code exit code of a program that does not wait any longer
    void noteAttempt(int code, const QString &reason);

    /// Tells those who watch how far it is.
    void showLive(std::size_t current, qint64 sent);

    /// The refused ones wait again.
    void retryRefused();

    bool isDone() const;     // all are stored
    bool hasWaiting() const; // some are neither stored nor refused
    qint64 size() const;

    /// Takes into the entry what the user has changed meanwhile.
    /// @return null on success, else a text for people
    QString refresh(std::size_t index);

    /// Writes `message`. @return null on success, else a text for people
    QString save() const;

    /// @return whether it is gone
    bool remove();

private:
    void note(const QByteArray &line);
    void readState();
};

/// The bytes of a message, from the first to the last.
class COutgoingReader
{
public:
    enum Result
    {
        Good,
        Changed, // the user has changed the file: refresh the entry and begin anew
        Failed,  // reason()
    };

    COutgoingReader(const QString &ofDirectory, const OutgoingMessage &ofMessage);

    COutgoingReader(const COutgoingReader &) = delete;
    COutgoingReader &operator=(const COutgoingReader &) = delete;

    /// Reads the next @a size bytes, which there have to be.
    Result read(char *bytes, int size);

    QString reason() const { return why; }

private:
    Result open();
    Result check();
    Result fail();

    const QString directory;
    const std::vector<OutgoingPiece> pieces;
    std::size_t piece = 0;
    qint64 done = 0; // of the current piece
    CDescriptor file;
    QString why;
};

/// Puts an entry together. What has not been committed is removed again.
class COutboxWriter
{
public:
    explicit COutboxWriter(int level);
    ~COutboxWriter();

    COutboxWriter(const COutboxWriter &) = delete;
    COutboxWriter &operator=(const COutboxWriter &) = delete;

    /// All of these: @return null on success, else a text for people.
    QString begin(const QString &abonent, const QString &address, int port);
    QString addText(const QString &text);
    QString addPath(const QByteArray &path); // a file or a directory
    QString addStream(const CDescriptor &stream, const QByteArray &name);

    /// The entry is on the disk and will be delivered.
    QString commit();

    const COutboxEntry &entry() const { return made; }

    /// What was left out of trees: links, devices and the like.
    const QStringList &leftOut() const { return passedOver; }

    /// Whether something was not taken for want of room or of another resource: not the file's fault.
    bool isOutOfResources() const { return outOfResources; }

private:
    CDescriptor newFile(const QByteArray &name) const;
    OutgoingMessage start(OfferFrame::Kind kind, const QByteArray &name) const;
    QString pack(std::string_view bytes, OutgoingMessage *message);
    QString takeFile(const CDescriptor &file, qint64 size, qint64 modifiedNs, OutgoingMessage *message);
    QString copy(const CDescriptor &from, qint64 *size, const QByteArray &name);
    QString addTree(const CDescriptor &root, const QByteArray &name, qint64 modifiedNs);
    QString trouble(const QString &what);

    const QDir output;
    COutboxEntry made;
    bool isCommitted = false;
    bool outOfResources = false;
    CDescriptor directory; // holds a lock: the entry is being made
    CDescriptor packFile;
    qint64 packed = 0;
    int files = 0;
    QStringList passedOver;
};

namespace Outbox {

/// The numbers of all entries of a level, in order.
QStringList numbers(int level);

QDir directory(int level);

/// Removes what a crash has left half made. By the process that holds the transport's lock.
void sweep(int level);

} // namespace Outbox
