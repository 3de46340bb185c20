// What `--help` says.
#pragma once

class QString;

/// @param command the command to explain; an empty or unknown one gives the overview
QString commandHelp(const QString &command);
