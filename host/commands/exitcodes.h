// What the program's exit codes mean. Scripts rely on the numbers; the help shows them.
#pragma once

enum ExitCode
{
    ExitDone = 0,
    ExitTrouble = 1,       // the installation: no plug-in, no rights, no space
    ExitUsage = 2,         // the command line
    ExitNoAnswer = 3,      // the abonent could not be reached
    ExitSomebodyElse = 4,  // somebody else answered the call
    ExitNotDelivered = 5,  // connected, but not everything was confirmed
    ExitBadValue = 6,      // a settings value was refused
    ExitBadChannel = 7,    // a check of a channel has failed
    ExitInterrupted = 128, // plus the number of the signal
};
