// Puts the contents of received messages into a folder of the user's, where that is wanted.
#pragma once

#include <QString>

/// @return null when @a place is a directory that can be written to, else a text for people
QString checkHandOut(const QString &place);

/// Moves the contents of a stored message into @a place, under their own name, or "name (2)" and so on where
/// that is taken. The description stays where it is; so does what cannot be moved.
///
/// Onto another file system they are copied. Called again after a crash at any moment it makes up for what is
/// missing, and nothing gets there twice.
/// @param directory of the message; its name tells it from all others
/// @return null on success, else a text for people. [any thread], one at a time for a message
QString handOut(const QString &directory, const QString &place);
