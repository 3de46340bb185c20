// The texts that were written here, and when: messages/sent/IDENTITY, one file for each message.
//
// The outbox forgets what is delivered and the journal keeps no texts, so this is what the conversation shows
// of our own side afterwards. Of a file or directory the file is empty and tells the time only.
#pragma once

#include "host/screen/screencontents.h"

#include <QHash>

/// keep() and forget() [any thread]; the rest one thread at a time.
class CSentTexts
{
public:
    explicit CSentTexts(int level);

    /// @return null on success, else a text for people
    QString keep(const QString &identity, const QString &text) const;

    /// What was not sent after all.
    void forget(const QString &identity) const;

    /// Reads the latest texts that are new since the last look.
    void look();

    /// By identity, with text and date.
    const QHash<QString, ScreenMessage> &all() const { return texts; }

private:
    const QString directory;
    QHash<QString, ScreenMessage> texts;
};
