// The commands of the program. Each is run with a Qt application object in place and returns the
// program's exit code.
#pragma once

#include <QStringList>

class CommandLine;
struct CallTarget;

/// Is an abonent: answers calls and stores what arrives, until it is interrupted.
int runListen(const CommandLine &line);

/// Calls an abonent and delivers to it.
int runSend(const CommandLine &line);

/// Whom to call by a command line whose first two operands are abonent and address.
/// @return null on success, else what is wrong, in Russian
QString readTarget(const CommandLine &line, CallTarget *target);

/// Shows or changes the settings.
int runSettings(const CommandLine &line);

/// "port=" and so on, as `settings set` takes them.
QStringList settingsCompletions();

/// Plays the host against a channel library and tells whether it keeps the contract.
int runCheck(const CommandLine &line);

/// Print the manual page and the completion script, when the program is built.
int runPrintManual(const CommandLine &line);
int runPrintCompletion(const CommandLine &line);
