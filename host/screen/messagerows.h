// A message, an event, a transfer as rows of the screen. Pure.
#pragma once

#include "host/screen/screencontents.h"
#include "host/screen/screenpicture.h"

/// "ждет: Абонент 'Борис' не отвечает". Empty for what was received and for events.
QString stateText(const ScreenMessage &message);

/// @param width cells
std::vector<ScreenRow> messageRows(const ScreenMessage &message, int width);

/// Percent and state first, the name shortened in the middle. @param isChosen marked, by a sign as well
std::vector<ScreenRow> transferRows(const ScreenTransfer &transfer, int width, bool isChosen);

std::vector<ScreenRow> journalRows(const JournalEntry &entry, int width);

int cellsOf(const ScreenRow &row);

/// A text of which all rows but the first begin with @a indent blanks.
QStringList hanging(const QString &text, int width, int indent);
