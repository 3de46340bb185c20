// The commands of the program. Each is run with a Qt application object in place and returns the
// program's exit code.
#pragma once

#include <QStringList>

class CommandLine;
struct CallTarget;

/// Is an abonent: answers calls and stores what arrives, until it is interrupted.
int runListen(const CommandLine &line);

/// Takes messages into the outbox, and waits until they are delivered as far as that goes at once.
int runSend(const CommandLine &line);

/// Whom to send to, and what files. The second operand may be an address.
/// @return null on success, else what is wrong, in Russian
QString readTarget(const CommandLine &line, CallTarget *target, QStringList *paths);

/// Shows what waits in the outbox, has it tried again, or takes it back.
int runOutbox(const CommandLine &line);

/// Asks an abonent whether it is there.
int runPing(const CommandLine &line);

/// Shows and changes whom this installation knows.
int runContact(const CommandLine &line);

/// Shows what was sent, received and refused.
int runJournal(const CommandLine &line);

/// Shows the log of the process's level, and what is added to it.
int runLog(const CommandLine &line);

/// Looks for what is wrong with the installation, or with a call to an abonent.
int runDoctor(const CommandLine &line);

/// Shows, changes, carries or checks the settings.
int runSettings(const CommandLine &line);

/// Plays the host against a channel library and tells whether it keeps the contract.
int runCheck(const CommandLine &line);

/// Print the manual page (in English with "en") and the completion script, when the program is built.
int runPrintManual(const CommandLine &line);
int runPrintCompletion(const CommandLine &line);

/// Prints the names of the contacts, a line each, for the completion. Reads, and changes nothing.
int runPrintContacts(const CommandLine &line);
