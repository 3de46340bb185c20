// Where received messages lie, and how one comes into being.
//
//   messages/incomplete/00000005/     while it arrives; locked by the process that receives it
//   messages/input/00000042/          afterwards, whole:
//       message.txt                       who sent it, when, what it is, SHA-256
//       text.txt  or the file's own name  the contents
//
// A message appears in input/ by one renaming of its directory, after its contents are on the disk.
// So whatever ends the process, input/ holds finished messages only.
#pragma once

#include "common/descriptor.h"

#include <QByteArray>
#include <QDir>
#include <QString>

#include <memory>
#include <string_view>

class CMessageStore;

/// A message that is arriving. Destroyed before finish() has succeeded, it leaves nothing behind.
/// One thread at a time.
class CIncomingMessage
{
public:
    ~CIncomingMessage();

    CIncomingMessage(const CIncomingMessage &) = delete;
    CIncomingMessage &operator=(const CIncomingMessage &) = delete;

    /// Appends to the contents. @return null on success, else a text for people
    QString append(std::string_view bytes);

    /// Makes it a message of the inbox: blocks until it is on the disk.
    ///
    /// @param description the contents of message.txt
    /// @param directory the message's directory, on success
    /// @return null on success, else a text for people
    QString finish(const QByteArray &description, QString *directory);

    /// The name the contents are stored under.
    const QString &fileName() const { return contentName; }

private:
    friend class CMessageStore;
    CIncomingMessage() = default;

    QString trouble(const char *what) const;

    CMessageStore *store = nullptr;
    QString path; // of the directory in incomplete/
    QString contentName;
    CDescriptor directory; // holds the lock
    CDescriptor content;
    qint64 written = 0;
    qint64 flushed = 0; // how far the disk has been told to begin
};

/// The messages of one secrecy level. [any thread]; outlives the messages it has begun.
class CMessageStore
{
public:
    explicit CMessageStore(int level);

    /// Creates the directories and removes what processes that were killed have left in incomplete/.
    /// @return null on success, else a text for people
    QString prepare();

    /// Begins a message.
    ///
    /// @param name the name of a file as the sender gives it; null for a text
    /// @param size bytes to come; refused when the disk has no room for them
    /// @param error what is wrong, for people, when null is returned
    std::unique_ptr<CIncomingMessage> begin(const QString &name, qint64 size, QString *error);

private:
    friend class CIncomingMessage;

    const QDir incomplete;
    const QDir input;
};
