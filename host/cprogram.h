// What `listen` and `send` have in common: console, monitor, journal, store and messenger, built in
// order and taken down in the reverse order.
#pragma once

#include "host/cinterruption.h"
#include "host/cmessenger.h"
#include "host/console/cconsole.h"
#include "host/console/cconsolejournal.h"
#include "host/console/cconsolemonitor.h"
#include "host/conversation/cmessagestore.h"
#include "host/conversation/cunnamedcallers.h"

class CommandLine;

class CProgram
{
public:
    /// @param delivery what a placed call delivers; may be null, outlives the program
    CProgram(const CommandLine &line, CConsoleMonitor::Style monitorStyle, CDelivery *delivery);
    ~CProgram();

    CProgram(const CProgram &) = delete;
    CProgram &operator=(const CProgram &) = delete;

    /// Checks the name, prepares the store, loads the channels.
    /// @return ExitDone, or the program's exit code; what is wrong has been shown then
    int prepare();

    CConsole console;
    CConsoleMonitor monitor;
    CConsoleJournal journal;
    CInterruption interruption;

private:
    CMessageStore store;
    CUnnamedCallers unnamed;
    const QString ownName;

public:
    CMessenger messenger;
};
