// The received messages, as they lie in messages/input. Reads each once, and the latest ones only.
#pragma once

#include "host/screen/screencontents.h"

#include <QDir>

#include <map>
#include <vector>

/// One thread at a time.
class CInboxView
{
public:
    explicit CInboxView(const QDir &input) : directory(input) {}

    /// Reads what has come since the last look. @return whether something has come or gone
    bool look();

    std::vector<ScreenMessage> messages() const;

private:
    const QDir directory;
    std::map<QString, ScreenMessage> known; // by the number that the directory has as its name
};
