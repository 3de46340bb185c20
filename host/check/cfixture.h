// One check's process on the inside: the library, one server at a time, and waiting with a limit.
#pragma once

#include "host/cchannellibrary.h"
#include "host/check/checkarguments.h"
#include "host/check/crecorder.h"
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

    // Where an operation returns a text: null on success, else what the channel has done wrong.

    /// Loads the library through the program's own gate and prepares calls, if they are possible.
    QString load();

    /// @return why no call can be placed; null when it can
    QString whyNoCalls() const { return noCalls; }

    QString open(); // makes and equips a server
    void start();
    QString stop(); // returns when finished() has come
    void close();   // deletes the server
    QString stopAndClose();

    /// Places call number @a number without waiting.
    void call(int number);
    static QString calledName(int number);

    /// Waits until each side of the call has reported its name.
    QString waitConnected(int number);
    QString waitExchanged(int number);
    int connectionOf(int number) const; // identifier; 0: not reported

    /// Runs the event loop until the condition holds.
    /// @return whether it held before the limit was over
    bool wait(const std::function<bool()> &condition, int limitMs = 0);
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
    QString skipReason; // set by a check that has found nothing to do

private:
    QString prepareIp();

    QString noCalls;
    int closedPort = -1; // bound but not listening: a call to it is refused
};

EntryPoints entryPoints(const QString &fileName);
