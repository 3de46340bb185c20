#include "host/screen/screencontents.h"

#include "common/namefilter.h"

#include <algorithm>
#include <map>

namespace {

/// One message of the conversation, from a row of the journal.
ScreenMessage messageOf(const JournalEntry &row)
{
    ScreenMessage message;
    message.identity = row.message;
    message.abonent = row.abonent;
    message.date = row.date;
    message.name = row.name;
    message.size = row.size;
    message.kind = row.name.isEmpty() ? OfferFrame::Text : OfferFrame::File;
    message.state = row.kind == JournalRow::Received ? ScreenMessage::Received
                    : row.kind == JournalRow::Sent   ? ScreenMessage::Delivered
                                                     : ScreenMessage::Event;
    if (message.state == ScreenMessage::Event) {
        JournalEntry said = row;
        said.abonent.clear();
        message.text = journalLine(said);
        message.identity.clear();
    }
    return message;
}

bool belongsToConversation(const JournalEntry &row)
{
    return row.kind != JournalRow::Started && row.kind != JournalRow::Stopped && !row.abonent.isEmpty();
}

/// Messages by identity: each source adds what the others do not know.
class Joined
{
public:
    void addRow(const JournalEntry &row)
    {
        if (!belongsToConversation(row))
            return;
        const ScreenMessage message = messageOf(row);
        if (!places.contains(row.message))
            return add(message);
        if (message.state == ScreenMessage::Event)
            return; // the outbox tells that it was refused
        // The disk has told more of it; the journal knows the name as it came, and when it was delivered.
        ScreenMessage &known = all[places.value(message.identity)];
        known.abonent = message.abonent;
        if (message.state == ScreenMessage::Received)
            known.date = message.date;
        else if (message.state == ScreenMessage::Delivered)
            known.state = message.state;
    }

    void add(const ScreenMessage &message)
    {
        if (!message.identity.isEmpty())
            places.insert(message.identity, all.size());
        all.push_back(message);
    }

    void addWritten(const QHash<QString, ScreenMessage> &written)
    {
        for (ScreenMessage &message : all) {
            const auto found = message.isOutgoing() ? written.find(message.identity) : written.end();
            if (found == written.end())
                continue;
            message.date = found->date;
            if (!found->text.isEmpty())
                message.text = found->text;
        }
    }

    std::vector<ScreenMessage> all;

private:
    QHash<QString, std::size_t> places;
};

std::vector<ScreenMessage> joinMessages(const ScreenSources &sources)
{
    Joined joined;
    for (const ScreenMessage &message : sources.received)
        joined.add(message);
    for (const ScreenMessage &message : sources.outgoing)
        joined.add(message);
    for (const JournalEntry &row : sources.journal)
        joined.addRow(row);
    joined.addWritten(sources.written);
    for (ScreenMessage &message : joined.all) {
        message.key = Global::filterName(message.abonent);
        message.isNew = message.state == ScreenMessage::Received && !message.place.isEmpty() &&
                        !sources.seen.contains(message.identity);
    }
    std::stable_sort(
        joined.all.begin(), joined.all.end(),
        [](const ScreenMessage &one, const ScreenMessage &other) { return one.date < other.date; });
    return joined.all;
}

ScreenContact contactOf(const CContact &known)
{
    ScreenContact contact;
    contact.key = Global::filterName(known.name);
    contact.name = known.name;
    contact.address = known.address;
    contact.port = known.port;
    contact.isKnown = true;
    contact.isInvited = known.isInvited;
    contact.isBlocked = known.isBlocked;
    contact.hasOtherKey = !known.offered.isEmpty();
    return contact;
}

bool isListedBefore(const ScreenContact &one, const ScreenContact &other)
{
    if (one.last.isValid() != other.last.isValid())
        return one.last.isValid();
    return one.last.isValid() && one.last != other.last ? one.last > other.last : one.key < other.key;
}

/// The contacts, and whoever else there was a message from or to.
std::vector<ScreenContact> joinContacts(const QVector<CContact> &known,
                                        const std::vector<ScreenMessage> &messages)
{
    std::map<QString, ScreenContact> byKey;
    for (const CContact &contact : known)
        byKey[Global::filterName(contact.name)] = contactOf(contact);
    for (const ScreenMessage &message : messages) {
        if (message.key.isEmpty() || (message.state == ScreenMessage::Event && byKey.count(message.key) == 0))
            continue;
        ScreenContact &contact = byKey[message.key];
        if (contact.key.isEmpty()) {
            contact.key = message.key;
            contact.name = message.abonent;
        }
        contact.unseen += message.isNew;
        contact.waiting += message.state == ScreenMessage::Waiting || message.state == ScreenMessage::Sending;
        if (message.state != ScreenMessage::Event)
            contact.last = message.date;
    }
    std::vector<ScreenContact> contacts;
    contacts.reserve(byKey.size());
    for (const auto &[key, contact] : byKey)
        contacts.push_back(contact);
    std::stable_sort(contacts.begin(), contacts.end(), isListedBefore);
    return contacts;
}

} // namespace

const ScreenContact *ScreenContents::contact(const QString &key) const
{
    const auto found = std::find_if(contacts.begin(), contacts.end(),
                                    [&key](const ScreenContact &contact) { return contact.key == key; });
    return found == contacts.end() ? nullptr : &*found;
}

ScreenContents assemble(const ScreenSources &sources)
{
    ScreenContents contents;
    contents.messages = joinMessages(sources);
    contents.contacts = joinContacts(sources.contacts, contents.messages);
    contents.transfers = sources.transfers;
    contents.journal = sources.journal;
    return contents;
}
