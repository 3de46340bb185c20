// What the program's exit codes mean. Scripts rely on the numbers and on the words of --json; help, manual
// pages and the administrator's guide show them.
#pragma once

#include <QString>

#include <vector>

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
    ExitKeyChanged = 8,    // the abonent has shown another key than the one it is known by
    ExitRefused = 9,       // the rules of one side do not let the other one in
    ExitNoRoom = 10,       // the other side has no room now
    ExitNameTaken = 11,    // a name belongs to another key: ours over there, or the called one's here
    ExitOtherVersion = 12, // the other side speaks another version of the protocol
    ExitInterrupted = 128, // plus the number of the signal
};

struct ExitCodeRow
{
    int code;
    const char *word;    // in "code" of what --json prints
    const char *meaning; // in Russian
    const char *english; // the same, for the manual page

    /// "3", "128 + N"
    QString shownCode() const;
};

/// All of them, in order.
const std::vector<ExitCodeRow> &exitCodeTable();

/// The word of a code, also of an interruption by any signal.
QString exitWord(int code);
