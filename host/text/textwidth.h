// How wide a text is on a terminal, and texts made to fit.
//
// Cells are counted for each character as terminals do: wide ones take two, combining ones none. What
// terminals make of emoji that are joined of several differs; they are counted at their widest, so a row
// never gets longer than meant. Cut is only between what a reader takes for characters.
#pragma once

#include <QString>

/// The cells that a printable text takes.
int cellsOf(const QString &text);

/// The text, or its beginning and "…" when it is wider than @a cells.
QString cutToCells(const QString &text, int cells);

/// The text, or its beginning, "…" and its end: of a file name the ending stays to be seen.
QString shortenedInMiddle(const QString &text, int cells);

/// The text with blanks behind it, or before it, up to @a cells.
QString paddedRight(const QString &text, int cells);
QString paddedLeft(const QString &text, int cells);
