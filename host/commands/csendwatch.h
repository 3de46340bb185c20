// Waits for an entry of the outbox, whoever delivers it, and says how it goes and how it ended.
#pragma once

#include "host/conversation/coutbox.h"

#include <QElapsedTimer>
#include <QFileSystemWatcher>
#include <QObject>
#include <QTimer>

class CConsole;

class CSendWatch : public QObject
{
    Q_OBJECT

public:
    static constexpr int retryForEver = -1;

    /// @param what as it was committed
    /// @param retries failed attempts to wait through
    CSendWatch(const COutboxEntry &what, int retries, CConsole &shownOn);

    void begin();

    /// The messages of the entry that arrived so far.
    int storedCount() const { return stored; }

Q_SIGNALS:
    /// Everything is stored or refused, an attempt has failed too often, or the entry is gone.
    /// @param exitCode as far as the entry is concerned
    /// @param text what to tell; null: nothing
    /// @param isKept whether something stays in the outbox and goes on by itself
    void over(int exitCode, const QString &text, bool isKept);

private:
    void changed();
    void look();
    void takeLine(const QString &line);
    void showProgress();
    void end(int exitCode, const QString &text, bool isKept);
    QString summary() const;

    const COutboxEntry &entry;
    CConsole &console;
    int retriesLeft;
    CDescriptor file; // `state`: it can be read to its end also after it has been removed
    QByteArray rest;
    QFileSystemWatcher watcher;
    QTimer clock;
    QTimer soon;
    QElapsedTimer sinceLook;
    QElapsedTimer elapsed;
    int stored = 0;
    int refused = 0;
    qint64 storedBytes = 0;
    bool isOver = false;
    std::size_t shownIndex = std::size_t(-1); // for plain output: what has been shown of which message
    int shownTenth = 0;
    qint64 beginMs = 0; // of the message shown
};
