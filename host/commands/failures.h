// What the program says when it cannot do what it was asked to do.
#pragma once

#include <QString>

class CConsole;

/// Says why on standard error; with --json also on standard output:
/// {"event":"failed","code":WORD,"text":WHY}.
/// @return @a code, for the program to end with
int fail(int code, const QString &why);
int fail(CConsole &console, int code, const QString &why);
