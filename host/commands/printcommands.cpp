// `abonent print-manual` and `print-completion`, run when the program is built, and `print-contacts`, run by
// the completion: not by people.
#include "host/commands/commands.h"

#include "common/global.h"
#include "common/settingsfile.h"
#include "host/commands/commandhelp.h"
#include "host/commands/commandline.h"
#include "host/commands/exitcodes.h"
#include "host/console/printing.h"
#include "host/delivery/contacttext.h"
#include "host/text/untrustedtext.h"

int runPrintManual(const CommandLine &line)
{
    const bool isEnglish = line.operands.value(0) == QLatin1String("en");
    printLine(manualPage(isEnglish ? ManualLanguage::English : ManualLanguage::Russian).trimmed());
    return ExitDone;
}

int runPrintCompletion(const CommandLine &)
{
    printLine(bashCompletion().trimmed());
    return ExitDone;
}

// Only reads: somebody who presses Tab changes nothing, not even a damaged file.
int runPrintContacts(const CommandLine &)
{
    SettingsFile::Contents contents;
    if (!SettingsFile::read(Global::abonentsSettingsFilePath(), &contents))
        return ExitTrouble;
    const ParsedContacts parsed = contactsFromText(contents.text);
    for (const CContact &contact : parsed.contacts) {
        if (printable(contact.name) == contact.name)
            printLine(contact.name);
    }
    return ExitDone;
}
