// Contacts as text: abonents.conf, and the few lines that people mail to each other. Pure: knows no file.
//
//   abonents 1                       abonents.conf begins with this line
//
//   name: Борис                      begins a contact
//   address: 10.0.0.5                missing: none
//   port: 18001
//   key: 64 hexadecimal digits       missing: no contact so far
//   seen: 2026-11-23T09:00:00Z       first contact, UTC; missing: none so far
//   invited: yes                     the user wants it; otherwise "no"
//   blocked: no
//   offered: 64 hexadecimal digits   a key that was refused under the name; up to four lines, oldest first
//
//   end 1                            the number of contacts; nothing follows
//
// UTF-8, lines ended by a line feed. In values control characters, line separators, "%" and blanks at the
// ends are written as %XX for each byte. A mailed contact stands between two lines of its own:
//
//   --- abonent contact 1 ---
//   name: Борис
//   address: 10.0.0.5
//   port: 18001
//   key: 64 hexadecimal digits
//   words: амбар бублик ...          of the key, in lines of five; must fit it
//   --- end of contact ---
//
// What stands before and behind them is passed over, as are "> " and blanks in front of each line.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QVector>

#include <optional>

/// Somebody we know, by name and, from the first contact on, by key.
struct CContact
{
    static constexpr int nameBytes = 1024; // longest name and address, in UTF-8
    static constexpr int defaultPort = 18001;

    QString name;           // as it was first given; two are the same when Global::filterName() says so
    QString address;        // empty: cannot be called
    int port = defaultPort; // 1 to 65535
    QByteArray key;         // fingerprint, 32 bytes; empty until the first contact
    QDateTime seen;         // first contact, UTC; invalid until then
    bool isInvited = false; // the user has added or trusted it
    bool isBlocked = false;
    QVector<QByteArray> offered; // keys refused under the name since the last trust, oldest first

    static constexpr int mostOffered = 4;
};

/// abonents.conf. Contacts stand in the given order.
QByteArray contactsToText(const QVector<CContact> &contacts);

struct ParsedContacts
{
    QVector<CContact> contacts; // those that are whole
    QString damage;             // what is wrong with the text, in Russian; null when nothing is
    bool isNewer = false;       // of a later version of the format: not damaged, but not ours to change
};

/// An empty text is no contacts.
ParsedContacts contactsFromText(const QByteArray &text);

/// A contact to be mailed: name, address and port if any, key if any.
QByteArray mailedContact(const CContact &contact);

/// Finds the first mailed contact in a text.
/// @param trouble what is wrong, in Russian, when there is none
std::optional<CContact> contactFromMail(const QByteArray &text, QString *trouble);
