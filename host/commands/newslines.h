// What happens to messages, told as it happens: a line, or an object for scripts.
#pragma once

#include "host/conversation/messagenews.h"

#include <QJsonObject>

class CConsole;

/// Tells it in the console's style. [any thread], never blocks
/// @param isVerbose with digests
void tellNews(CConsole &console, const MessageNews &news, bool isVerbose);

/// A row of the journal of messages for --json: "event" is its kind, "received" and so on.
QJsonObject jsonOf(const JournalEntry &entry);
