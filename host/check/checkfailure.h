// How a check ends before its last line: by an exception, caught where the process of the check runs.
#pragma once

#include <QString>

/// What the channel has done wrong.
struct CheckFailure
{
    QString text;
    const char *rule = nullptr; // the check that this is the business of; null: the one that runs
    bool isLate = false;        // something has not come: a rule broken meanwhile may tell why
};

/// The check cannot be made here.
struct CheckSkip
{
    QString reason;
};

[[noreturn]] inline void fail(const QString &text, const char *rule = nullptr)
{
    throw CheckFailure{text, rule, false};
}

inline void require(bool holds, const QString &text)
{
    if (!holds)
        fail(text);
}

/// For rules, where null stands for "kept".
inline void require(const QString &error)
{
    if (!error.isNull())
        fail(error);
}
