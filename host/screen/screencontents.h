// What the screen shows of an installation: contacts, conversations, transfers and the journal.
//
// Pure: assemble() joins what the readers of the disk have found. Names and texts are as they came:
// Cells::shown() before a terminal.
#pragma once

#include "host/conversation/messageframe.h"
#include "host/delivery/cmessagejournal.h"
#include "host/delivery/contacttext.h"

#include <QDateTime>
#include <QHash>
#include <QSet>
#include <QString>
#include <QVector>

#include <vector>

/// A message, or what happened in its place.
struct ScreenMessage
{
    enum State
    {
        Received,
        Waiting, // in the outbox
        Sending,
        Delivered,
        Refused,
        Withdrawn,
        Event, // neither: the text says what
    };

    QString identity; // in hexadecimal; empty of an event
    QString abonent;
    QString key; // of the abonent: filtered name; set by assemble()
    QDateTime date;
    State state = Event;
    OfferFrame::Kind kind = OfferFrame::Text;
    QString name; // of a file or directory
    QString text; // of a text; null when it is not there any more
    qint64 size = 0;
    int percent = 0;    // while Sending
    QString reason;     // why it waits or was refused
    QString place;      // directory of what was received; empty when it is gone
    bool isNew = false; // received, and nobody has seen it

    bool isOutgoing() const { return state != Received && state != Event; }
};

struct ScreenContact
{
    QString key; // filtered name: what tells contacts apart
    QString name;
    QString address;
    int port = 0;
    bool isKnown = false; // there is a contact of this name
    bool isInvited = false;
    bool isBlocked = false;
    bool hasOtherKey = false;
    int unseen = 0;  // messages
    int waiting = 0; // messages of ours
    QDateTime last;  // message either way; invalid: none
};

/// A message on its way.
struct ScreenTransfer
{
    QString number; // of the outbox entry; of what is being received another name that nothing else has
    QString abonent;
    QString title;
    qint64 size = 0;
    int percent = 0;
    ScreenMessage::State state = ScreenMessage::Waiting; // Received: it arrives; Event: has ceased to arrive
    QString reason;

    bool isOurs() const { return state != ScreenMessage::Received && state != ScreenMessage::Event; }
};

struct ScreenContents
{
    QString ownName;
    bool hasResident = false;            // an `abonent listen` receives and delivers
    std::vector<ScreenContact> contacts; // the latest conversation first
    std::vector<ScreenMessage> messages; // of all abonents, oldest first
    std::vector<ScreenTransfer> transfers;
    QVector<JournalEntry> journal; // oldest first
    QString trouble;               // what could not be read, in Russian; null when nothing

    const ScreenContact *contact(const QString &key) const;
};

/// What the readers of the disk have found.
struct ScreenSources
{
    QVector<CContact> contacts;
    QVector<JournalEntry> journal;
    std::vector<ScreenMessage> received; // from the inbox
    std::vector<ScreenMessage> outgoing; // from the outbox, also what has just left it
    std::vector<ScreenTransfer> transfers;
    QHash<QString, ScreenMessage> written; // by identity: text and date of what was sent from here
    QSet<QString> seen;                    // identities
};

/// Joins them; ownName and hasResident are left to the caller.
ScreenContents assemble(const ScreenSources &sources);
