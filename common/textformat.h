// Russian texts for sizes, speeds and durations, and two helpers for texts.
//
// Units are powers of 1024, for bytes and bits alike. A size, speed or duration reads the same in
// every locale. [any thread]
#pragma once

#include "common/exports.h"

#include <QString>

namespace Global {

/// A count of bytes: "1023 байт", "1.5 КБайт", ... up to "ТБайт".
RUNTIME_EXPORT QString sizeString(const long long &size);

/// A speed in bytes per second, in bytes and in bits: "1.0 КБайт/с (8.0 Кбит/с)".
RUNTIME_EXPORT QString speedString(const long long &speed);

/// A speed given in bytes per second, in bits: "8.0 Кбит/с".
RUNTIME_EXPORT QString speedStringBits(const long long &speed);

/// A duration in seconds by its two largest units: "7 сек.", "1 м. 0 сек.", "2 ч. 2 м.".
RUNTIME_EXPORT QString timeStringSec(const long long &seconds);

/// The form of a Russian noun that goes with @a count: 1 год, 2 года, 5 лет.
RUNTIME_EXPORT QString declension(int count, const QString &one, const QString &few, const QString &many);

/// The first @a length characters and "...", unless at most three characters more make the whole text.
RUNTIME_EXPORT QString cut(const QString &text, int length);

} // namespace Global
