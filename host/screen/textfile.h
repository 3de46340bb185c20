// Texts that lie in files of the installation.
#pragma once

#include <QString>

/// The start of a text: as much as is shown, some thousand letters. Follows no link. [any thread]
///
/// @return with "..." and where the whole text is, when there is more; null when it cannot be read
QString beginningOfText(const QString &path);
