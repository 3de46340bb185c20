// What became of one check.
#pragma once

#include "host/check/checktable.h"

#include <QString>

struct CheckResult
{
    enum Outcome
    {
        Waiting,
        Running,
        Passed,
        Failed,
        Skipped,
    };
    const Check *check;
    Outcome outcome;
    QString text; // why it has failed or was skipped
    qint64 ms;
};
