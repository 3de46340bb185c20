// The commands of the program. Each is run with a Qt application object in place and returns the
// program's exit code.
#pragma once

struct CommandLine;

/// Is an abonent: answers calls and stores what arrives, until it is interrupted.
int runListen(const CommandLine &line);

/// Calls an abonent and delivers to it.
int runSend(const CommandLine &line);

/// Shows or changes the settings.
int runSettings(const CommandLine &line);

/// Plays the host against a channel library and tells whether it keeps the contract.
int runCheck(const CommandLine &line);
