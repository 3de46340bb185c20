// When two abonent names are the same, and what may stand in a file name. [any thread]
#pragma once

#include "common/exports.h"

#include <QString>

namespace Global {

/// Only the Latin letters, the 33 Russian letters and the digits of a name, in lower case.
///
/// Two names whose results are equal denote the same abonent. A name of none of these characters
/// gives an empty text.
RUNTIME_EXPORT QString filterName(QString text);

/// The text without the characters " < > : \ / | ? * and without pairs of dots.
RUNTIME_EXPORT QString filterNotValidSymbols(QString text);

} // namespace Global
