// Untrusted text where people will meet it: names and texts come from the network.
#pragma once

#include <QString>

/// The text with everything written out ("\u001B") that would act on a terminal instead of being
/// shown: control characters, line feeds, marks that turn the writing direction, broken surrogates.
QString printable(const QString &text);
