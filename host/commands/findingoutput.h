// Findings on the terminal, or as objects for scripts. While it lives, what the runtime has to say by itself
// is not shown: the findings say it, with what to do.
#pragma once

#include "host/health/finding.h"

class FindingOutput
{
public:
    explicit FindingOutput(bool asJson);
    ~FindingOutput();

    FindingOutput(const FindingOutput &) = delete;
    FindingOutput &operator=(const FindingOutput &) = delete;

    /// @param check which look has found it, for scripts; @param title the same for people
    void add(const char *check, const char *title, const Finding &finding);

    /// The end: how many there were.
    void sum();

    int errors() const { return counts[Finding::Error]; }

private:
    const bool isJson;
    int counts[3] = {};
};
