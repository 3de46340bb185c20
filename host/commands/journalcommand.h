// What `abonent journal` does.
#pragma once

#include <QDateTime>
#include <QString>

namespace JournalCommand {

/// Reads "2026-11-23", "2026-11-23 09:00", "2026-11-23T09:00:00+03:00", or how long ago: "30m", "12h", "7d".
/// @return invalid when the text has none of these forms
QDateTime sinceFromText(const QString &text, const QDateTime &now);

/// Prints the message journal of the process's level, oldest first.
/// @param since invalid: from the beginning
/// @param with an abonent; empty: all
int show(const QDateTime &since, const QString &with);

} // namespace JournalCommand
