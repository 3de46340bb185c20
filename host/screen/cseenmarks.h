// Which received messages somebody has seen: messages/seen.list, an identity on each line, only ever appended
// to.
#pragma once

#include <QSet>
#include <QString>
#include <QStringList>

/// One thread at a time; any number of processes.
class CSeenMarks
{
public:
    explicit CSeenMarks(int level);

    /// Reads what other screens have added.
    void look();

    const QSet<QString> &all() const { return seen; }

    /// Takes them for seen, here also when that cannot be written down.
    /// @return null on success, else a text for people
    QString add(const QStringList &identities);

private:
    const QString path;
    qint64 readBytes = 0;
    QSet<QString> seen;
};
