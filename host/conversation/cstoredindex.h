// Which messages have been stored, for good: messages/stored.index, so that none is stored twice.
//
// A message is found here also after the user has deleted it from the inbox. The file is a row of
// records of 64 bytes, appended and synced before a message gets its final name:
//
//   offset  size  field
//        0    16  key of the message        see CInbox
//       16    32  SHA-256 of its contents
//       48     8  when, s since 1970        big-endian
//       56     8  check                     the first bytes of the SHA-256 of what stands before it
//
// A damaged record is passed over. When there are more than a million, the latest half is kept.
#pragma once

#include "common/descriptor.h"

#include <QByteArray>
#include <QHash>
#include <QString>

#include <vector>

/// One thread at a time.
class CStoredIndex
{
public:
    struct Record
    {
        QByteArray key;    // 16 bytes
        QByteArray digest; // 32 bytes
    };

    /// Reads the file; makes it if there is none. @return null on success, else a text for people
    QString open(const QString &fileName);

    /// The digest of a stored message; empty when it is not.
    QByteArray digestOf(const QByteArray &key) const { return stored.value(key).digest; }

    /// Which of two was stored first: the smaller number. -1 of one that is not stored.
    int orderOf(const QByteArray &key) const { return stored.value(key).order; }

    /// Adds records, all or none. They are on the disk afterwards.
    /// @return null on success, else a text for people
    QString add(const std::vector<Record> &records);

private:
    QString trouble(const char *doing) const;

    CDescriptor file;
    QString path;

    struct Stored
    {
        QByteArray digest;
        int order = -1;
    };
    void note(const QByteArray &key, const QByteArray &digest);

    QHash<QByteArray, Stored> stored;
};
