// A fingerprint for people: words to be read out over the telephone, and a short hexadecimal form.
//
// Both show the first 80 bits. Who wants a key with the same words has to make 2^80 keys, on average.
// Pure: knows no file. [any thread]
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

constexpr int fingerprintWordCount = 10; // 8 bits each

/// @param fingerprint 32 bytes
/// @return ten Russian words in lower case; none when the size is wrong
QStringList fingerprintWords(const QByteArray &fingerprint);

/// "9F3A 11C2 0B7E 5D48 E1A6"; null when the size is wrong.
QString shortFingerprint(const QByteArray &fingerprint);

/// Both as one line for people: "амбар берег … (9F3A 11C2 …)"; "не известен" for an empty fingerprint.
QString shownFingerprint(const QByteArray &fingerprint);
