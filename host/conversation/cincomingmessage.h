// A message while it arrives: its files in incomplete/, however often the connection breaks.
#pragma once

#include "common/descriptor.h"
#include "host/conversation/cblockwriter.h"
#include "host/conversation/cchecksum.h"
#include "host/conversation/csha256.h"
#include "host/conversation/messageframe.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

class CInbox;

/// What has arrived stays on the disk when the object goes. [connection thread] of its session; another
/// connection that continues the message takes it over.
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

    /// SHA-256 of what has arrived, and XXH3-128. May wait for the disk.
    QByteArray digest();
    QByteArray check();

    /// Appends to the contents. May wait for the disk. @return null on success, else a text for people
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
    void hash(std::string_view bytes);
    bool write(std::string_view bytes);
    bool stopWriting();
    CDescriptor openParent(const QByteArray &path, QByteArray *name) const;
    bool settleDirectories();
    void abandon();
    void closeAll();
    bool sync() const;
    QString trouble(const char *thing) const;
    QByteArray partName(const char *ending) const;

    CInbox *inbox = nullptr;
    std::shared_ptr<std::atomic<int>> writers; // threads that write for the connection
    QByteArray key;
    OfferFrame what;
    std::mutex mutex;       // held while the files are in use: another connection may take them over
    bool abandoned = false; // that has happened, or the message is stored
    bool isOwned = false;   // the inbox knows of it
    bool bad = false;
    int incomplete = -1; // descriptor of incomplete/, the inbox's
    CDescriptor directory;
    CDescriptor list;
    CDescriptor file; // the current one
    QByteArray listBytes;
    bool hasLayout = false;
    std::vector<Part> parts;
    std::size_t part = 0; // the current one
    qint64 partDone = 0;  // its bytes
    qint64 total = 0;     // bytes that have arrived
    bool isCaughtUp = true;
    CSha256 sha;
    CCheckSum sum;
    std::unique_ptr<CBlockWriter> writer; // of a long file: it uses `file` and `sha`
    std::vector<CDescriptor> unsynced;    // what is yet to be synced, when it is little
    bool isMuch = false;                  // more than that: the whole file system
};
