// The journal on the console: a line per record, errors on standard error. With --json an object per record:
// "event" says what it is about, "text" is the channel's own.
#pragma once

#include "interfaces/cjournal.h"

#include <QHash>
#include <QString>

#include <mutex>

class CConsole;

class CConsoleJournal : public CJournal
{
public:
    /// @param shownOn outlives the journal
    explicit CConsoleJournal(CConsole &shownOn) : console(shownOn) {}

    /// Leaves out what is told otherwise, or goes without saying: how calls come and go. Errors and first
    /// contacts stay. Set before the first record comes.
    void hideRoutine() { isRoutineHidden = true; }

    /// [any thread]
    void addRecord(int kind, const QString &source, const QString &text) override;

    /// Why the last call of an abonent came to nothing, in Russian; null when nothing was recorded. [any
    /// thread]
    QString takeReason(const QString &abonentName);

private:
    void keepReason(const QString &text);

    CConsole &console;
    bool isRoutineHidden = false;
    std::mutex mutex;                // guards the reasons
    QHash<QString, QString> reasons; // by filtered name
};
