// A host under check: runs it in a throw-away installation whose channel is the observer, and hears what
// that one has seen.
#pragma once

#include "host/check/checkarguments.h"
#include "host/check/checkresult.h"

#include <QProcess>
#include <QTemporaryDir>

#include <memory>
#include <vector>

/// The rules of hosts, in the order in which they are shown. They have no run.
const std::vector<Check> &hostRuleTable();

class CHostRun
{
public:
    explicit CHostRun(const CheckArguments &given);

    /// Runs the host twice: its calls are answered, then they are refused.
    /// @return null, or why there was nothing to check
    QString run();

    std::vector<CheckResult> results;

private:
    QString runOnce(const char *calls);
    QString prepare(const QString &place, const char *calls);
    void waitForEnd();
    void hear();
    void judgeEnd();
    void take(const QString &line);
    CheckResult *resultOf(const QString &rule);

    const CheckArguments arguments;
    QTemporaryDir directory;
    QString reportName;
    std::unique_ptr<QProcess> process;
    qint64 heardBytes = 0;
    bool isIdle = false;
    bool isLoaded = false; // the observer has said something
    bool wasAsked = false; // to end, by a signal
    bool wasKilled = false;
    bool wasStopped = false; // a server has come to its end
    bool isStuck = false;    // and the program has not
};
