#include "host/console/cconsolejournal.h"

#include "host/console/cconsole.h"

void CConsoleJournal::addRecord(int kind, const QString &source, const QString &text)
{
    if (!hidden.isEmpty() && source == hidden)
        return;
    if (kind == JournalError)
        console.record(QStringLiteral("ошибка"), source, text, CConsole::Errors);
    else
        console.record(QStringLiteral("событие"), source, text);
}
