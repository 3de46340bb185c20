// Puts the contents of received messages into a folder of the user's, where that is wanted.
#pragma once

#include <QString>

/// @return null when @a place is a directory that can be written to, else a text for people
QString checkHandOut(const QString &place);

/// Moves the contents of a stored message into @a place, under their own name, or "name (2)" and so on where
/// that is taken. The description stays in the inbox. What cannot be moved stays there, too.
/// @param directory of the message
/// @return null on success, else a text for people. [any thread]
QString handOut(const QString &directory, const QString &place);
