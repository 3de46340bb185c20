// A host for tests: it records what the channel tells it, and its protocols do what the test says.
// Everything is safe from any thread.
#pragma once

#include "interfaces/cabstractprotocol.h"
#include "interfaces/cchannelserver.h"
#include "tests/support/testinstallation.h"

#include <QMutex>
#include <QStringList>
#include <QTcpSocket>

#include <atomic>
#include <functional>

/// What a channel tells its host, in order, as texts that begin with the one who is told:
///   monitor HANDLE: STATE       the first as "KIND LABEL STATE", the last "removed"
///   journal KIND SOURCE: TEXT
///   connected NAME ID, notConnected NAME, disconnected NAME ID useful|idle
class Recorder : public CChannelMonitor, public CJournal
{
public:
    int addConnection(int kind, const QString &label, const QString &text) override;
    void removeConnection(int handle) override;
    void setState(int handle, const QString &text) override;
    void addReceived(int, int bytes) override { received += bytes; }
    void addSent(int, int bytes) override { sent += bytes; }
    void addRecord(int kind, const QString &source, const QString &text) override;
    void note(const QString &text);

    QStringList take(const QString &start); // texts that begin so, and forgets them
    bool heard(const QString &text) const;
    bool waitFor(const QString &text) const;

    std::function<void(const QString &text)> listener; // takes the texts instead; they are not kept then
    std::atomic<int> received{0}, sent{0}, shown{0};   // bytes; connections

private:
    mutable QMutex mutex;
    QStringList texts;
    std::atomic<int> lastHandle{0}; // 0 is the channel's own
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

/// The host of one server, which has to be deleted before.
class FakeHost : public Recorder
{
public:
    explicit FakeHost(CChannelServer *equippedServer);

    /// Stops the server and waits. @return whether finished() came within @a ms
    bool stopServer(int ms = 60000);

    ScriptedFactory *const factory = new ScriptedFactory; // the server's

private:
    CChannelServer *const server;
};

/// @return whether the echo of @a bytes comes back
bool echoes(QTcpSocket *client, const QByteArray &bytes, int ms = 30000);
