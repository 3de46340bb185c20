// What a channel did to its host: every call and every signal, in order, with the thread it came from.
//
// The recorder is the monitor and the journal of the channel under check; the check's protocols and
// the fixture add what they see. The rules (rules.h) judge the list afterwards.
#pragma once

#include "interfaces/cchannelmonitor.h"
#include "interfaces/cjournal.h"

#include <QMutex>
#include <QString>

#include <atomic>
#include <vector>

class CAbstractProtocol;

/// How the check's protocols behave.
struct Behaviour
{
    unsigned refusals = 0; // bit n: the factory makes no protocol for connection n, from 0
    bool finishesInStart = false;
    bool finishesInStop = false; // straight from stop(), in the thread that asks
    bool holdsOut = false;       // ends when it is stopped, not with its connection
    bool isTimeless = false;     // no timer: works when the channel wakes it
    bool isNameless = false;     // nobody says a name
    bool isDeaf = false;         // who is called reads nothing, while the recorder's isDeaf is set
    bool isSink = false;         // who is called sends nothing back but the greeting
    bool floods = false;         // the caller writes without asking for room
    bool hangsUp = false;        // the caller ends the connection behind its payload
    int payloadBytes = 0;        // what the caller sends and wants back
    QString answersAs;           // the called side's name; null: the one that was called
};

enum class What
{
    AddConnection,    // number: handle, text: label, value: kind
    RemoveConnection, // number: handle
    SetState,         // number: handle
    Received,         // number: handle, value: bytes
    Sent,             // number: handle, value: bytes
    Record,           // number: kind, text: source
    Create,           // number: protocol, -1 when refused
    Start,            // number: protocol, text: the name preset, null for none
    Worked,           // number: protocol; for the first time, so its start is over
    Named,            // number: protocol, text: the name it has learned
    Exchanged,        // number: protocol, text: name; the payload has come back, or to the sink
    Full,             // number: protocol; idealBlockSize() has no room for the payload now
    Read,             // number: protocol, value: bytes; noted at the protocol's end
    Written,          // number: protocol, value: bytes; noted at the protocol's end
    Stop,             // number: protocol, value: whether it has worked since its start
    Gone,             // number: protocol, text: its last remote name, value: wasUseful
    FactoryGone,
    Connected,    // number: connection, text: name
    NotConnected, // text: name
    Disconnected, // number: connection, text: name, value: wasUseful
    Finished,
    Started,      // noted before start()
    Call,         // noted before connectToAbonent(), text: name
    Disconnect,   // noted before disconnectFromAbonent()
    StopAsked,    // noted before stop() ...
    StopReturned, // ... and after it
    ServerGone,   // noted before the server is deleted
};

struct Event
{
    What what;
    int number;
    QString text;
    qint64 value;
    int thread; // the system's number
};

/// What a connection's protocol and channel found in place at the protocol's start().
struct Presets
{
    QString name, filteredName, label;
    int kind;
};

/// [any thread] throughout; locks only itself.
class CRecorder final : public CChannelMonitor, public CJournal
{
public:
    static constexpr int ownHandle = 7; // the channel's own entry in the monitor

    void note(What what, int number = 0, const QString &text = QString(), qint64 value = 0);

    /// Something that is wrong in itself, of a sort that a rule asks for by name.
    void complain(const char *sort, const QString &text);
    QString complaint(const char *sort) const; // the first of the sort; null: none

    std::vector<Event> events() const;

    /// @param text counts only these; null counts all
    int count(What what, const QString &text = QString()) const;

    void addPresets(const Presets &seen);
    std::vector<Presets> presets() const;

    void setBehaviour(const Behaviour &behaviour);
    Behaviour behaviour() const;

    /// The protocols alive, so that keepAliveRequested can be seen.
    void enter(int number, CAbstractProtocol *protocol);
    void leave(int number);
    std::vector<int> keptAlive() const; // numbers of protocols

    /// Wakes the event loops of the protocols alive: those without a timer look at their channels.
    void nudge() const;

    /// Which connection this is since the behaviour was set, from 0.
    int nextConnection();

    /// Forgets what happened, not who is alive.
    void clear();

    int addConnection(int kind, const QString &label, const QString &text) override;
    void removeConnection(int handle) override;
    void setState(int handle, const QString &text) override;
    void addReceived(int handle, int bytes) override;
    void addSent(int handle, int bytes) override;
    void addRecord(int kind, const QString &source, const QString &text) override;

    std::atomic<bool> mayExchange{true};     // false holds the callers' payload back
    std::atomic<bool> isDeaf{true};          // whether Behaviour::isDeaf is in force
    std::atomic<int> looks{0};               // of all protocols at their channels
    std::atomic<int> longestWriteMs{0};      // of all channels
    std::atomic<QMutex *> logMutex{nullptr}; // set: every call of the channel tries it
    int kind = 0;                            // the plug-in's; set before anything runs
    const int serverThread;

    CRecorder();

private:
    void tryLogMutex(const char *who);

    mutable QMutex mutex; // guards all below
    std::vector<Event> list;
    std::vector<std::pair<const char *, QString>> complaints;
    std::vector<Presets> found;
    std::vector<std::pair<int, CAbstractProtocol *>> alive;
    Behaviour current;
    int connections = 0; // since the behaviour was set
    int lastHandle = 1000;
};
