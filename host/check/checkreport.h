// What people and programs get to read of a check: lines, or one JSON object, on the standard output.
#pragma once

#include "host/check/checkarguments.h"
#include "host/check/checkresult.h"

#include <vector>

/// @return the name of a check and what holds when it passes
QString rowOf(const Check &check);

/// Nothing for what was skipped: that is told in one line at the end.
void printResult(const CheckResult &result);

/// @param words of the command line, for the command that repeats what has failed
void printSummary(const CheckArguments &arguments, const QStringList &words,
                  const std::vector<CheckResult> &results);
void printJson(const CheckArguments &arguments, const std::vector<CheckResult> &results);

enum class Verdict
{
    Kept, // as far as it was checked
    Broken,
    NothingChecked,
};
Verdict verdictOf(const std::vector<CheckResult> &results);
