// What `abonent check` is asked to do.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

class CommandLine;

struct CheckArguments
{
    QString mistake;  // what is wrong, in Russian; null when nothing is
    QString channel;  // file name of the library
    QStringList host; // program and arguments: a host is checked, not a channel
    bool list = false;
    bool json = false;
    bool verbose = false;        // what the channel prints goes to standard error
    QStringList only;            // names of checks; empty: all
    QStringList settings;        // FILE=PATH: a copy of PATH under this name in every check's settings/
    bool hasAbonentData = false; // an empty record is a record as well
    QByteArray abonentData;      // leads back to the channel itself, or to an echo
    bool hasSilentAbonent = false;
    QByteArray silentAbonent; // a record that nobody answers
    quint32 seed = 0;         // of random-run; never 0 after parsing
    int limitMs = 5000;       // for everything that has to happen, a stop included
    int jobs = 0;             // checks at a time; never 0 after parsing
    bool debugger = false;    // checks wait for one

    // Of no use to people:
    QStringList child; // the check to run in this process, or rules
    QStringList known; // rules that are known to be broken
};

/// Reads the command line and the file named by --abonent-file; draws a seed when none is given.
CheckArguments readCheckArguments(const CommandLine &line);
