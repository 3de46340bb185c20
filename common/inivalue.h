// Values as QSettings stores them in an INI file.
//
//   QVariant  <->  items, one or of a list several  <->  text behind the equals sign
//
// Items are what a value is compared by: whether two texts mean the same is seen without making objects
// of what they say. Rectangles, sizes and points are written as other objects are, "@Variant(...)".
#pragma once

#include <QByteArray>
#include <QStringList>
#include <QVariant>

namespace IniValue {

/// @return none for a value that cannot be stored: of a type that cannot be streamed, or with a part that
///         cannot. Qt may warn.
QStringList items(const QVariant &value);

/// The value of items, of which there is one at the least. Invalid for "@Invalid()" and for objects that
/// cannot be read; then Qt may warn.
QVariant value(const QStringList &items);

/// ASCII, without a line break.
QByteArray text(const QStringList &items);

/// @param isUtf8 what is not escaped in @a text, else Latin-1
QStringList parsed(const QByteArray &text, bool isUtf8);

} // namespace IniValue
