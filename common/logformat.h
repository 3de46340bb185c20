// How records look in the log. Pure: nothing here reads settings or files.
//
// A text is foreign: an abonent's name may stand in it. Every line feed in it begins a continuation
// line, which is indented, so no text can forge the start of a record. All other characters are
// written as they stand, a carriage return and a NUL included.
//
//   12:04:05.123                CIpChannel    first line of the text
//                                             every later line, under the first
//   |- time ----| |- source, 25 columns ----||- 4 blanks per tab level
#pragma once

#include <QString>
#include <QVarLengthArray>

#include <array>

namespace LogFormat {

/// A time of day as "hh:mm:ss.zzz", without an end mark.
using TimeText = std::array<char, 12>;

/// The bytes of a record, UTF-8. Most are short and need no memory but the stack's.
using Record = QVarLengthArray<char, 1024>;

/// The local time of day. The broken-down time is kept for the rest of its second, so a change of the time
/// zone shows within a second. [any thread]
TimeText timeStamp();

/// One record of debug(), lines ended by line feeds: one line of the file per line of @a text.
///
/// Empty lines are bare; the first other one carries @a time and @a source (a name chosen in code; its
/// line feeds are not looked for), the later ones blanks in their place.
/// @param tabLevel four blanks each
Record record(const TimeText &time, const QString &source, int tabLevel, const QString &text);

/// One record of the emergency log: the word forceDebug in the source's place, later lines after four
/// blanks.
Record emergencyRecord(const TimeText &time, const QString &text);

} // namespace LogFormat
