// A host for tests: it records what the channel tells it, and its protocols do what the test says.
// Everything is safe from any thread.
#pragma once

#include "interfaces/cabstractprotocol.h"
#include "interfaces/cchannelserver.h"
#include "tests/support/testinstallation.h"

#include <QMap>
#include <QMutex>
#include <QPointer>
#include <QStringList>
#include <QTcpSocket>

#include <atomic>
#include <functional>

class RecordingMonitor : public CChannelMonitor
{
public:
    struct Entry
    {
        QString label;
        QStringList states; // the first is what it was added with
        int received = 0;
        int sent = 0;
        bool removed = false;
    };

    int addConnection(int kind, const QString &label, const QString &text) override;
    void removeConnection(int handle) override { locked(handle).entry.removed = true; }
    void setState(int handle, const QString &text) override { locked(handle).entry.states.append(text); }
    void addReceived(int handle, int bytes) override { locked(handle).entry.received += bytes; }
    void addSent(int handle, int bytes) override { locked(handle).entry.sent += bytes; }

    Entry entry(int handle) const;
    int shown() const; // entries added and not removed
    QString state() const { return entry(0).states.value(entry(0).states.size() - 1); } // the channel's own

private:
    struct Locked
    {
        QMutexLocker locker;
        Entry &entry;
    };
    Locked locked(int handle) { return {QMutexLocker(&mutex), entries[handle]}; }

    mutable QMutex mutex;
    QMap<int, Entry> entries; // 0 is the channel's own
    int lastHandle = 0;
};

class RecordingJournal : public CJournal
{
public:
    void addRecord(int kind, const QString &source, const QString &text) override;

    QStringList take(); // "kind source: text", in order
    bool contains(const QString &record) const;

private:
    mutable QMutex mutex;
    QStringList records;
};

/// Echoes what it reads, announces a name when told to, ends when the peer does or at a stop.
class ScriptedProtocol : public CAbstractProtocol
{
    Q_OBJECT

public:
    using Step = std::function<void(ScriptedProtocol *)>;

    explicit ScriptedProtocol(CChannel *ownedChannel);
    ~ScriptedProtocol() override;

    void start() override;
    void stop() override;

    /// Says who is at the other end.
    void announce(const QString &name);

    Step onStart;  // instead of nothing
    Step onStop;   // instead of finished()
    Step onAwake;  // instead of echoing
    Step onDelete; // before the end

private:
    void lookAtChannel();
};

class ScriptedFactory : public CProtocolFactory
{
public:
    CAbstractProtocol *createProtocol(CChannel *channel) override;

    std::function<void(ScriptedProtocol *)> script; // prepares each protocol, in its thread
    std::atomic<bool> refuses{false};
    std::atomic<int> made{0};
};

/// The host objects of one server, and the server's signals as texts.
class FakeHost : public QObject
{
    Q_OBJECT

public:
    /// Equips @a equippedServer, which has to be deleted before.
    explicit FakeHost(CChannelServer *equippedServer);

    /// Stops the server and waits. @return whether finished() came within @a ms
    bool stopServer(int ms = 10000);

    QStringList takeSignals(); // such as "connected name 1"
    bool waitForSignal(const QString &text, int ms = 5000);

    RecordingMonitor monitor;
    RecordingJournal journal;
    ScriptedFactory *factory; // the server's

private:
    void note(const QString &text);

    QPointer<CChannelServer> server;
    mutable QMutex mutex;
    QStringList received;
};

/// @return whether the echo of @a bytes comes back
bool echoes(QTcpSocket *client, const QByteArray &bytes, int ms = 5000);
