// The installation as the screen sees it: reads what lies on the disk, and notices when it changes.
//
// Other processes write all of it: `abonent listen`, `send`, `contact`. Changes of directories and files are
// told by the system; for what it does not tell there is a look every few seconds, and a quick one while
// something is on its way.
#pragma once

#include "host/delivery/ccontacts.h"
#include "host/screen/cinboxview.h"
#include "host/screen/coutboxview.h"
#include "host/screen/cseenmarks.h"
#include "host/screen/csenttexts.h"
#include "host/screen/screencontents.h"

#include <QElapsedTimer>
#include <QFileSystemWatcher>
#include <QObject>
#include <QTimer>

/// Lives in a thread with an event loop.
class CInstallation : public QObject
{
    Q_OBJECT

public:
    explicit CInstallation(int ofLevel);

    /// Reads all and begins to watch.
    void begin();

    /// Looks again, now.
    void look();

    const ScreenContents &contents() const { return shown; }
    const CSentTexts &sentTexts() const { return sent; }

    /// Takes what came from an abonent for seen. @param key filtered name
    void markSeen(const QString &key);

Q_SIGNALS:
    /// contents() is another now.
    void changed();

private:
    void noticeChange(const QString &path);
    QString journalStamp() const;
    void readJournal();
    void beginQuickLooks();
    void lookAtTransfers();
    void assembleAll();
    void watch();

    const int level;
    CContacts contacts;
    CInboxView inbox;
    COutboxView outbox;
    CSentTexts sent;
    CSeenMarks seen;
    QVector<JournalEntry> journal;
    QString readStamp; // of the journal, when last read
    QString journalTrouble;
    QString contactTrouble;
    QString rightsTrouble;
    QVector<CContact> known;
    bool hasResident = false;
    ScreenContents shown;

    QFileSystemWatcher watcher;
    QTimer soon;  // of many changes together only the last counts
    QTimer sweep; // for what the watcher does not tell
    QTimer quick; // while something is on its way
    QElapsedTimer sinceProgress;
};
