// Text as rows of cells of a terminal; what one character is and how wide, see host/text/textwidth.h. Pure.
//
// What a reader takes for one character, marks and joined emoji included, is never divided. [any thread]
#pragma once

#include <QString>
#include <QStringList>

namespace Cells {

/// One line of untrusted text as it may go to the terminal: tabs become blanks, what would act is written
/// out.
QString shown(const QString &text);

/// What a reader takes for characters, one after the other.
QStringList characters(const QString &text);

/// Where the character that begins at @a from ends.
int next(const QString &text, int from);

/// Where the character that ends at @a from begins.
int previous(const QString &text, int from);

/// Exactly @a cells: cut at the end, or filled with blanks.
QString fitted(const QString &text, int cells);

/// Rows of at most @a cells, broken at blanks where there are any. A character that is wider than a row has
/// one for itself. @return at least one row
QStringList wrapped(const QString &line, int cells);

} // namespace Cells
