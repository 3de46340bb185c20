// All checks, in the order in which they are shown.
#pragma once

#include <vector>

class CFixture;
class QString;

/// Stands for all the others: none of them may have failed.
extern const char *const everyOtherCheck;

struct Check
{
    const char *name;
    const char *needs; // the check without which this one has no sense; null: none
    const char *title; // what holds when it passes, in Russian
    bool placesCalls;
    QString (*run)(CFixture &fixture); // null when it has passed, else what is wrong
};

const std::vector<Check> &checkTable();

/// Runs one check in this process and prints its result for the parent.
/// @return the process's exit code
int runCheckHere(CFixture &fixture, const QString &name);
