// All checks, in the order in which they are shown.
#pragma once

#include <QStringList>

#include <vector>

class CFixture;
class CRecorder;

/// Stands for all the others: none of them may have failed.
extern const char *const everyOtherCheck;

struct Check
{
    const char *name;
    const char *needs;              // the check without which this one has no sense; null: none
    const char *title;              // what holds when it passes, in Russian
    void (*run)(CFixture &fixture); // throws CheckFailure or CheckSkip
    bool placesCalls = true;
    bool isSlow = false; // takes longer than a second by itself

    /// The checks that are a rule share one conversation, and one process.
    bool isRule() const;

    bool startsServer() const;
};

const std::vector<Check> &checkTable();

/// @return null when there is no such check
const Check *checkNamed(const QString &name);

/// Runs one check in this process, or all of @a names, which are rules, and prints the results for the
/// parent: "@result NAME pass|fail|skip text".
/// @return the process's exit code
int runCheckHere(CFixture &fixture, const QStringList &names);
