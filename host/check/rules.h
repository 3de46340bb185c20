// What the contract demands of everything that was recorded between start() and the server's end.
// Each rule is a pure look at the list; null means that it is kept, else the text says what is wrong.
#pragma once

#include <QStringList>

#include <vector>

class CRecorder;

namespace Rules {

QString presets(const CRecorder &recorder);
QString signalThreads(const CRecorder &recorder);
QString protocolThread(const CRecorder &recorder);
QString protocolStop(const CRecorder &recorder);
QString connectionNumbers(const CRecorder &recorder);
QString everyEndReported(const CRecorder &recorder);
QString usefulFlag(const CRecorder &recorder);
QString monitorEntries(const CRecorder &recorder);
QString monitorBytes(const CRecorder &recorder);
QString journalRecords(const CRecorder &recorder);
QString ownership(const CRecorder &recorder);
QString stopReturnsFirst(const CRecorder &recorder);
QString quietAfterFinish(const CRecorder &recorder);

} // namespace Rules

/// A rule has the name of the check that is made of it.
struct Rule
{
    const char *name;
    QString (*broken)(const CRecorder &recorder);
};

const std::vector<Rule> &ruleTable();

struct BrokenRule
{
    const char *name; // null: all are kept
    QString text;
};

enum class Moment
{
    Meanwhile, // the server still runs
    AtTheEnd,
};

/// @param known names of rules that are not to be looked at
BrokenRule firstBroken(const CRecorder &recorder, const QStringList &known, Moment moment);
