// One check's process on the inside: the library, one server at a time, and waiting with a limit.
#pragma once

#include "host/cchannellibrary.h"
#include "host/check/checkarguments.h"
#include "host/check/checkfailure.h"
#include "host/check/crecorder.h"
#include "host/check/cstopwatch.h"
#include "interfaces/cchannelserver.h"

#include <functional>
#include <memory>

/// The four functions of a library; null where one is missing.
struct EntryPoints
{
    ApiVersionFunction apiVersion;
    InitDebugFunction initDebug;
    InstanceFunction instance;
    DeleteInstanceFunction deleteInstance;
};

/// Lives in the main thread, which is the server thread of its servers.
class CFixture
{
public:
    explicit CFixture(const CheckArguments &given);
    ~CFixture();

    CFixture(const CFixture &) = delete;
    CFixture &operator=(const CFixture &) = delete;

    // What the channel does wrong ends these with a CheckFailure.

    /// Loads the library through the program's own gate and prepares calls, if they are possible.
    void load();

    /// @return why no call can be placed; null when it can
    QString whyNoCalls() const { return noCalls; }

    void open();                                          // makes and equips a server
    void start(const Behaviour &behaviour = Behaviour()); // opens one if there is none
    void stop();                                          // returns when finished() has come
    void close();                                         // deletes the server
    void judge() const;                                   // every rule has to have been kept

    /// The end of most checks: the three above.
    void stopAndClose();

    /// Places call number @a number without waiting.
    void call(int number);
    void disconnect(const QString &name, int connectionId);
    static QString calledName(int number);

    /// Calls the server, which may not keep its thread waiting.
    template <typename Call>
    auto ask(const QString &what, const Call &call)
    {
        step(what);
        const Prompt prompt(this, what);
        return call();
    }

    /// Waits until each side of the call has reported its name.
    void waitConnected(int number);
    void waitExchanged(int number);
    int connectionOf(int number) const; // identifier; 0: not reported

    /// Runs the event loop until the condition holds.
    /// @return whether it held before the limit was over, by the clock: a channel that blocks the
    /// thread meanwhile wins no time
    bool wait(const std::function<bool()> &condition, int limitMs = 0);

    /// The same for what has to come. @param text what to say when it does not
    void expect(const std::function<bool()> &condition, const std::function<QString()> &text);
    void pause(int ms);

    /// Says what is being done: shown when the channel crashes or falls silent.
    static void step(const QString &text);

    const CheckArguments arguments;
    CRecorder recorder;
    CChannelLibrary library;
    std::unique_ptr<CChannelServer> server;
    QByteArray ownRecord;    // leads back to this server
    QByteArray silentRecord; // leads to nobody
    bool hasSilentRecord = false;

private:
    /// Complains when a call has kept the server's thread waiting.
    class Prompt
    {
    public:
        Prompt(CFixture *all, const QString &call) : fixture(all), what(call) {}
        ~Prompt();

    private:
        CFixture *const fixture;
        const QString what;
        const CStopwatch watch;
    };

    QString prepareIp();
    void tellAddresses() const;

    QString noCalls;
    bool isAddressOurs = false; // each check has one of its own
    int closedPort = -1;        // bound but not listening: a call to it is refused
};

EntryPoints entryPoints(const QString &fileName);
