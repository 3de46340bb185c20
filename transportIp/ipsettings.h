// The byte records of the IP channel: the channel's own settings and those of one abonent.
//
// Both are versioned blobs in big-endian order. Hosts write them, so the records can be linked
// without the plug-in.
#pragma once

#include "common/exports.h"

#include <QByteArray>
#include <QString>

/// The settings of the channel; the contents of `channelIp.conf`.
///
///   offset  size  field
///        0     4  version, 2          int, big-endian
///        4     1  canCheckOnline      0 or 1; any other byte reads as true
///        5     4  maxConnections      int, big-endian
///        9     4  port                int, big-endian
///       13     4  blockSizeKb         int, big-endian
struct RUNTIME_EXPORT ChannelIpSettings
{
    bool canCheckOnline = true; // whether the host may call only to see who is on line
    int maxConnections = 10;    // a channel with fewer connections than this is free; advisory
    int port = 18001;           // TCP port to listen on
    int blockSizeKb = 256;      // KiB; what a connection wants to have queued at the most

    /// @return the record, 17 bytes
    QByteArray toByteArray() const;

    /// Reads a record; values are taken as they are, bytes behind the record are passed over.
    ///
    /// @return null on success, else what is wrong, in Russian. A record of another version changes
    ///         nothing; in damaged data the fields before the fault are read, the others are zero.
    QString fromByteArray(const QByteArray &data);
};

/// What it takes to call one abonent; the blob given to CChannelServer::connectToAbonent().
///
///   offset  size  field
///        0     4  version, 2          int, big-endian
///        4     4  length of address   bytes; FFFFFFFF = null text
///        8     n  address             UTF-16, big-endian
///    8 + n     4  port                int, big-endian
struct RUNTIME_EXPORT AbonentIpSettings
{
    QString address;  // host name or IP address
    int port = 18001; // TCP port

    /// @return the record, 12 bytes and the address
    QByteArray toByteArray() const;

    /// As ChannelIpSettings::fromByteArray(); an address of an odd length reads as null.
    QString fromByteArray(const QByteArray &data);
};
