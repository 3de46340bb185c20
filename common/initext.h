// The text of an INI file, in which values are looked up and set while everything else stays as it is.
//
// Finds the entries that QSettings finds (sections, escapes, quotes, duplicates, continued lines), but keeps
// comments, order, unknown groups and even garbage. What an entry says is a matter of IniValue. Pure: it
// knows no file.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringList>

class CIniText
{
public:
    explicit CIniText(const QByteArray &text = QByteArray());

    /// The whole text, as it was given plus what set() has changed.
    QByteArray text() const { return content; }

    /// False when a line is neither a section nor an entry.
    bool isWellFormed() const { return wellFormed; }

    /// The items of the last entry of that name; none when there is no such entry.
    /// @param key "group/name", case-sensitive
    QStringList items(const QString &key) const { return entries.value(key).items; }

    /// Of all entries, "group/name", in no order.
    QStringList keys() const { return entries.keys(); }

    /// Changes an entry in place, or adds it at the end of its group, which is made if missing.
    /// @return whether the text now gives these items; otherwise nothing is changed
    bool set(const QString &key, const QStringList &items);

private:
    struct Entry
    {
        QStringList items;
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
