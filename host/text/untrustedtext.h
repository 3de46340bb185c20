// Untrusted text where people will meet it: names and texts come from the network.
#pragma once

#include <QString>

class QJsonObject;

/// The text with everything written out ("\u001B") that would act on a terminal instead of being
/// shown: control characters, line feeds, marks that turn the writing direction, broken surrogates.
QString printable(const QString &text);

/// @a object as JSON on one line, pure of what would act on a terminal.
QString jsonLine(const QJsonObject &object);
