// What the messenger takes from generalSettings.ini: its own name, who may write to it, and how much.
//
// An INI file as QSettings reads and writes it; what is not ours in it stays as it is. Unlike settings.ini it
// gets a key only when somebody sets it. [any thread]
#pragma once

#include <QString>

#include <vector>

/// Who may write to us.
enum class WritingPolicy
{
    Known,        // contacts that the user has added
    FirstContact, // besides, whoever calls first under a name that is free, within quotas
    All,          // the same without quotas
};

/// What contacts that have come by themselves (not invited) may do; the user's own contacts have no limits.
struct StrangerQuotas
{
    qint64 messageBytes = 0;   // largest message
    int messagesPerDay = 0;    // from each of them
    qint64 diskBytes = 0;      // in the inbox, of all of them together
    int newContactsPerDay = 0; // first contacts of a day
    int contacts = 0;          // of them altogether
};

/// What strangers have used up already; counted by the caller.
struct StrangerUsage
{
    int messagesToday = 0;  // from this one
    qint64 bytesOnDisk = 0; // of all of them
};

struct GeneralSettings
{
    QString ownName; // empty: not set
    WritingPolicy policy = WritingPolicy::FirstContact;
    StrangerQuotas quotas;
    int journalKeepDays = 0; // 0: for ever
    int journalKeepRows = 0;

    /// Reads the file; what is missing or out of its range is the default.
    /// @param trouble what is wrong with the file, in Russian; null when nothing is; may be null
    static GeneralSettings load(QString *trouble = nullptr);

    /// The name to go by: the @a given one, else that of the file, else the system user's, else the
    /// machine's.
    static QString chosenName(const QString &given);

    /// @return null when set() would take the value, else why not
    static QString refusal(const QString &key, const QString &text);

    /// Sets one value, whatever it was, in the file.
    /// @param key "Contacts/policy" and so on, as in generalSettingsKeys()
    /// @param text as the user wrote it; an empty one is allowed for texts only
    /// @return null on success, else a text for people
    static QString set(const QString &key, const QString &text);
};

/// @return null when a message of @a size from a stranger is within the quotas, else why not
QString quotaRefusal(const StrangerQuotas &quotas, const StrangerUsage &usage, qint64 size);

/// A key for people: what `settings` and the help show.
struct GeneralSettingsKey
{
    QString name;
    QString value; // at present
    QString defaultValue;
    QString range;
    QString meaning;
};

/// All of them, in the order of the table.
std::vector<GeneralSettingsKey> generalSettingsKeys();
