// Output of the commands that print something and end. CConsole is for those that go on running.
#pragma once

#include <QString>

/// Prints a line of results to standard output.
void printLine(const QString &text);

/// Prints a line to standard error, made safe by printable().
void printError(const QString &text);

/// @return errno of the first line of results that could not be printed, or 0
int printingError();
