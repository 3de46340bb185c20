// The host's journal: what happened, for people.
#pragma once

class QString;

/// Kinds of journal records; the numbers are part of the contract.
enum JournalKind
{
    JournalEvent = 0,
    JournalError = 2,
};

/// Keeps events and errors. Implemented and owned by the host. [any thread]
class CJournal
{
public:
    virtual ~CJournal() = default;

    /// Appends a record.
    ///
    /// @param kind JournalEvent or JournalError
    /// @param source the channel ("IP-канал") or one connection of it ("IP-канал 3")
    virtual void addRecord(int kind, const QString &source, const QString &text) = 0;
};
