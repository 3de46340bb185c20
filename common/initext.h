// The text of an INI file, in which values are looked up and set while everything else stays as it is.
//
// Reads what QSettings reads (sections, escapes, quotes, lists, duplicates, continued lines) and gives
// the same values for texts, numbers and booleans, but keeps comments, order, unknown groups and
// even garbage. Pure: it knows no file.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QVariant>

class CIniText
{
public:
    explicit CIniText(const QByteArray &text = QByteArray());

    /// The whole text, as it was given plus what set() has changed.
    QByteArray text() const { return content; }

    /// False when a line is neither a section nor an entry.
    bool isWellFormed() const { return wellFormed; }

    /// @param key "group/name", case-sensitive
    bool contains(const QString &key) const { return entries.contains(key); }

    /// The value of the last entry of that name: a text, a byte array ("@ByteArray(...)"), a list
    /// (commas outside quotes), or an invalid variant ("@Invalid()" and stored objects, which no
    /// key of ours can be). Null-like when there is none.
    QVariant value(const QString &key) const { return entries.value(key).value; }

    /// Changes an entry in place, or adds it at the end of its group, which is made if missing.
    /// @param value text, number or boolean
    /// @return whether the text now gives this value; otherwise nothing is changed
    bool set(const QString &key, const QVariant &value);

private:
    struct Entry
    {
        QVariant value;
        int start = 0; // of the value's text, behind the equals sign
        int end = 0;   // behind its last character
        bool isQuoteOpen = false;
    };

    void parse();
    QString parseGroup(int start, int end);
    void parseEntry(const QString &group, int start, int equals, int end, bool isQuoteOpen);
    int endOfReplacedValue(const Entry &entry) const;
    QByteArray withEntryAdded(const QString &group, const QByteArray &entry) const;
    QByteArray withEntryInFront(const QString &group, const QByteArray &entry) const;
    static QByteArray groupHeader(const QString &group);

    QByteArray content;
    bool wellFormed = true;
    QHash<QString, Entry> entries; // by "group/name"
    QHash<QString, int> groupEnds; // by "group/": behind the last line of its last section
};
