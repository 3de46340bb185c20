// Waits for an entry of the outbox, whoever delivers it, and says how it goes and how it ended.
#pragma once

#include "host/console/progressrow.h"
#include "host/conversation/clatewatcher.h"
#include "host/conversation/coutbox.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <map>

class CConsole;

class CSendWatch : public QObject
{
    Q_OBJECT

public:
    static constexpr int retryForEver = -1;

    /// @param what as it was committed
    /// @param retries failed attempts to wait through
    /// @param verbose with digests
    CSendWatch(const COutboxEntry &what, int retries, bool verbose, CConsole &shownOn);

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
    int soonMs() const;
    void look();
    void takeLine(const QString &line);
    void takeAttempt(int code, const QString &reason);
    QJsonObject outcomeObject(const OutgoingMessage &message, bool isStored, const QString &detail) const;
    void takeOutcome(std::size_t index, bool isStored, const QString &detail);
    void lookAtLive();
    void showRows();
    void printTenths();
    void end(int exitCode, const QString &text, bool isKept);
    QString summary() const;

    const COutboxEntry &entry;
    CConsole &console;
    const bool isVerbose;
    int retriesLeft;
    CDescriptor file; // `state`: it can be read to its end also after it has been removed
    QByteArray rest;
    CLateWatcher watcher;
    QTimer clock;
    QTimer soon;
    QElapsedTimer sinceLook;
    QElapsedTimer sinceLive;
    QElapsedTimer elapsed;
    int stored = 0;
    int refused = 0;
    qint64 storedBytes = 0;
    bool isOver = false;

    // What is on its way, by the file `live`.
    QByteArray lastLive;
    bool isMoving = false; // since the last attempt
    std::size_t current = 0;
    std::map<std::size_t, qint64> sent;     // bytes of messages that are neither stored nor refused
    qint64 sentNow = 0;                     // of all, with what is stored
    CSpeedMeter meter;                      // of all
    std::size_t tenthsOf = std::size_t(-1); // what has been printed of which message
    int printedTenth = 0;
};
