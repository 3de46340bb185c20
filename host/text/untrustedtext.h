// Untrusted text where people will meet it: names and texts come from the network.
#pragma once

#include <QString>
#include <QStringList>

class QJsonObject;

/// The text with everything written out ("\u001B") that would act on a terminal instead of being
/// shown: control characters, line feeds, marks that turn the writing direction, broken surrogates. Emoji
/// that are joined of several stay whole.
QString printable(const QString &text);

/// A text of several lines as its lines, each made safe by printable(); a tab becomes a blank.
/// @param most further lines are counted in one more
QStringList printableLines(const QString &text, int most);

/// @a object as JSON on one line, pure of what would act on a terminal.
QString jsonLine(const QJsonObject &object);
