// Putting a file into an installation of a check.
#pragma once

#include <QFile>

#include <unistd.h>

/// Links or copies a file; a hard link counts as a place of its own, a symbolic one would not.
inline bool placeFile(const QString &from, const QString &to)
{
    return ::link(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0 ||
           QFile::copy(from, to);
}
