// Text in the cells of a terminal: a letter takes one, a wide one two, a combining mark none.
//
// A character and the marks behind it are one unit here, which is never divided. Pure, but for the locale:
// wcwidth(3) knows letters only while LC_CTYPE is a UTF-8 one, see useWideCharacters(). [any thread]
#pragma once

#include <QString>
#include <QStringList>

namespace Cells {

/// Makes LC_CTYPE one that knows all characters, if it is not. @return false when the system has none
bool useWideCharacters();

/// One line of untrusted text as it may go to the terminal: tabs become blanks, what would act or has no
/// width is written out.
QString shown(const QString &text);

int width(const QString &text);

/// Where the unit that begins at @a from ends.
int next(const QString &text, int from);

/// Where the unit that ends at @a from begins.
int previous(const QString &text, int from);

/// At most @a cells of the text, an ellipsis in the place of what is left out at the end or in the middle.
QString cut(const QString &text, int cells);
QString cutInMiddle(const QString &text, int cells);

/// Exactly @a cells: cut() or filled with blanks.
QString padded(const QString &text, int cells);

/// Rows of at most @a cells, broken at blanks where there are any. @return at least one row
QStringList wrapped(const QString &line, int cells);

} // namespace Cells
