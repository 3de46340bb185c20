// The journal on the console: a line per record, errors on standard error.
#pragma once

#include "interfaces/cjournal.h"

#include <QString>

class CConsole;

class CConsoleJournal : public CJournal
{
public:
    /// @param shownOn outlives the journal
    explicit CConsoleJournal(CConsole &shownOn) : console(shownOn) {}

    /// Leaves out the records of one source; set before the first record comes.
    void hide(const QString &source) { hidden = source; }

    /// [any thread]
    void addRecord(int kind, const QString &source, const QString &text) override;

private:
    CConsole &console;
    QString hidden;
};
