// Untrusted text where people or the file system will meet it: names and files come from the network.
#pragma once

#include <QString>

/// The text with everything written out ("\u001B") that would act on a terminal instead of being
/// shown: control characters, line feeds, marks that turn the writing direction, broken surrogates.
QString printable(const QString &text);

/// A name for a received file that stays in the directory it is created in.
///
/// Only the last part of a path is kept, without characters that are invalid in file names or act on
/// a terminal, no leading dot, at most 200 bytes (the ending is kept); "файл" when nothing is left.
QString safeFileName(const QString &name);
