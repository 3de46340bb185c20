// `abonent print-manual` and `abonent print-completion`: run when the program is built, not by people.
#include "host/commands/commands.h"

#include "host/commands/commandhelp.h"
#include "host/commands/exitcodes.h"
#include "host/console/printing.h"

int runPrintManual(const CommandLine &)
{
    printLine(manualPage().trimmed());
    return ExitDone;
}

int runPrintCompletion(const CommandLine &)
{
    printLine(bashCompletion().trimmed());
    return ExitDone;
}
