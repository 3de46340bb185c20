// What is in the outbox and how far it is, and what is just arriving.
//
// The entries are read once; afterwards only their files `state` and `live` are. A `state` stays open, so
// that the end of an entry that has been removed meanwhile is known.
#pragma once

#include "host/conversation/coutbox.h"
#include "host/screen/screencontents.h"

#include <QDir>
#include <QFile>

#include <map>
#include <memory>
#include <vector>

/// One thread at a time.
class COutboxView
{
public:
    explicit COutboxView(int ofLevel);

    /// @return whether something has changed since the last look
    bool look();

    /// One for each message, also of entries that are gone since the view was made.
    const std::vector<ScreenMessage> &messages() const { return shownMessages; }

    /// One for each entry that is not gone, then what is arriving.
    const std::vector<ScreenTransfer> &transfers() const { return shownTransfers; }

    /// The files to watch: each change in them is worth a look.
    QStringList stateFiles() const;

private:
    struct Entry
    {
        std::shared_ptr<COutboxEntry> entry;
        std::unique_ptr<QFile> state;
        QByteArray stateText;
        std::vector<ScreenMessage> messages;
        qint64 sent = 0; // bytes of the current message
        std::size_t current = 0;
    };

    void takeNew(const QString &number);
    void readState(Entry *entry);
    void readLive(Entry *entry);
    void settleGone(Entry *entry);
    std::vector<ScreenTransfer> arriving() const;

    const int level;
    const QDir incomplete;
    std::map<QString, Entry> entries; // by number
    std::vector<ScreenMessage> gone;
    std::vector<ScreenMessage> shownMessages;
    std::vector<ScreenTransfer> shownTransfers;
    QByteArray lastLook; // what tells one look from another
};
