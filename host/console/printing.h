// Output of the commands that print something and end. CConsole is for those that go on running.
//
//   what was asked for   printLine() or printJsonLine()   standard output, always
//   that it is done      printNote()                      standard output, not with --quiet and --json
//   what is wrong        printError()                     standard error, always
#pragma once

#include <QString>

/// How the program is to print; set once, before anything is printed.
enum class OutputStyle
{
    Plain,
    Quiet, // only what was asked for and what is wrong
    Json,  // standard output has one JSON object in each line and nothing else
};

void setOutputStyle(OutputStyle style);
OutputStyle outputStyle();

/// Prints a line of results to standard output.
void printLine(const QString &text);

/// Prints a line that says what was done, made safe by printable().
void printNote(const QString &text);

/// Prints a line to standard error, made safe by printable().
void printError(const QString &text);

/// @return errno of the first line of results that could not be printed, or 0
int printingError();
