// What is said about the commands: help, manual page, completion, mistakes. All of it comes from the table.
#pragma once

#include <QString>

class CommandLine;
struct Command;

/// @param command the command to explain; null gives the overview
QString commandHelp(const Command *command);

enum class ManualLanguage
{
    Russian,
    English,
};

/// The manual page abonent(1), for man(7).
QString manualPage(ManualLanguage language);

/// Completion for bash: a script that is sourced.
QString bashCompletion();

/// Tells the user what is wrong with the command line and where to read on. @return the exit code
int refuse(const CommandLine &line, const QString &mistake);
