#include "host/console/cconsolejournal.h"

#include "host/console/cconsole.h"

void CConsoleJournal::addRecord(int kind, const QString &source, const QString &text)
{
    if (hidden.isEmpty() || source != hidden)
        console.record(kind == JournalError ? QStringLiteral("ошибка") : QStringLiteral("событие"), source,
                       text);
}
