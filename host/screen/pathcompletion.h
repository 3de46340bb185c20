// Completion of the path of a file that is being typed.
#pragma once

#include <QString>
#include <QStringList>

struct PathCompletion
{
    QString path;           // as far as it is certain; a directory ends with a slash
    QStringList candidates; // names to choose from; empty when there is one or none

    /// @param typed relative paths start at the working directory, "~/" at the user's own
    static PathCompletion of(const QString &typed);
};

/// "~" and "~/..." with the user's own directory in its place; other paths as they are.
QString withHome(const QString &typed);
