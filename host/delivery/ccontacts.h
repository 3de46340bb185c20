// Whom this installation knows (settings/abonents.conf), and who may write to it.
//
// A name belongs to the key that first came under it (pinned at first contact); another key under the
// name is refused until the user trusts it. Several names may have one key: people who share an
// installation share its key.
//
// The file is read anew whenever it has changed and written under a lock (abonents.conf.lock), so any
// number of processes may use it. A damaged file is put aside as abonents.conf.damaged-DATE, with a warning
// in the log; the contacts in it that are whole are kept. Only a process that may write the settings (level
// 0) can change contacts, hence pin: at other levels first contacts are refused.
#pragma once

#include "common/settingsfile.h"
#include "host/delivery/contacttext.h"
#include "host/delivery/generalsettings.h"

#include <QMutex>
#include <QString>
#include <QVector>

#include <functional>
#include <optional>

enum class Verdict
{
    Known,      // the name with its key: go on
    PinnedNow,  // first contact; the key has been written down: go on, and show the words
    KeyChanged, // the name has another key, the shown one is nobody's: refuse loudly; trust() finds it
    NameTaken,  // the name has another key, the shown one is another contact's: refuse loudly
    NotInvited, // nobody we know, and the policy or a quota does not allow first contacts: refuse
    Blocked,    // the name or the key is blocked: refuse
    NotStored,  // first contact, but it could not be written down: refuse
};

/// What CContacts::judge() has found.
struct Judgement
{
    Verdict verdict = Verdict::NotInvited;
    CContact contact; // the contact of the name as it is now stored; without a name when there is none
    QString text;     // for people: what happened and what to do; null when Known. Holds names as they came:
                      // printable() before a terminal

    bool mayGoOn() const { return verdict == Verdict::Known || verdict == Verdict::PinnedNow; }

    /// Whether the quotas for strangers apply to what comes.
    bool isStranger() const { return !contact.isInvited; }
};

/// [any thread]; every call may read the file, calls that change write and sync it.
class CContacts
{
public:
    /// Who has placed the call.
    enum Direction
    {
        Answered, // the peer; the policy applies
        Placed,   // we; the user wants this abonent, so the policy does not apply
    };

    /// settings/abonents.conf of this installation. @param path elsewhere for tests
    explicit CContacts(const QString &path = QString());

    /// Whether somebody who calls itself @a name, with a key that TLS has proved, is to be believed; pins
    /// the key at first contact. Of a placed call the caller compares the called and the announced name
    /// first.
    ///
    /// @param name as announced by the peer
    /// @param fingerprint 32 bytes
    Judgement judge(const QString &name, const QByteArray &fingerprint, Direction direction = Answered);

    /// The contact of a name. @return none also when the file cannot be read (then in the log)
    std::optional<CContact> find(const QString &name);

    /// All, in the order they were added. @param trouble in Russian, null when nothing is wrong; may be null
    QVector<CContact> list(QString *trouble = nullptr);

    // The following return null on success, else a text for people.

    /// Adds a contact, or gives the one of that name another address; key and state stay. It is invited now.
    QString add(const QString &name, const QString &address, int port);

    QString remove(const QString &name);

    /// Accepts a key for a name from now on, and invites the contact.
    ///
    /// @param which words, short form or all 64 digits of the key; empty: the only key that was refused under
    /// the
    ///        name, or, when none was, the one it has
    /// @param now the contact as it is stored then; may be null
    QString trust(const QString &name, const QString &which, CContact *now = nullptr);

    QString setBlocked(const QString &name, bool isBlocked);

    /// Adds what somebody has mailed. Refused when the name has another key already.
    QString import(const CContact &imported);

private:
    QString refresh();
    QString change(const std::function<QString(QVector<CContact> *)> &make);
    QString putAside(const QString &damage);

    const QString path;

    QMutex mutex;                                 // guards the following
    QVector<CContact> contacts;                   // as in the file
    quint64 stamp = SettingsFile::Stamp::Unknown; // of the file that they show
    bool isFresh = true;                          // read so early that its time proves nothing
    QString state;                                // why the file cannot be used or changed; null when it can
};
