// A channel library that is a layer over a good one, and breaks the contract at one place: for a host it
// makes a faulty channel of the loop-back, and for the observer below it a faulty host of the host above.
//
// The fault is named by the environment variable FAULT, "POINT ACTION [NUMBER]"; without it the layer
// passes everything on as it is. A point is an operation of the contract, such as server.stop. What can
// go wrong at any of them:
//
//   drop N     not passed on, from the Nth time on         twice N    passed on twice, from the Nth time on
//   sleep MS   passed on after a while                     thread N   passed on from a thread of its own
//   late MS    ... from a thread, when the caller has gone queue MS   ... from the server's thread, later
//   lock N     passed on while the log's mutex is held     throw N    an exception comes out of it
//   abort N    ends the process                            ACT N      followed by something else: see acts()
//
// A value on its way, such as connected.id, knows "add N", or as a text "is TEXT". The rest has names of its
// own.
#include "common/debugdata.h"
#include "common/exports.h"
#include "interfaces/cabstractprotocol.h"
#include "interfaces/cchannelserver.h"
#include "interfaces/pluginentry.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QHash>
#include <QLibrary>
#include <QScopeGuard>
#include <QThread>
#include <QTimer>

#include <functional>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>

#include <sys/eventfd.h>

namespace {

struct Fault
{
    const QList<QByteArray> words = qgetenv("FAULT").split(' ');
    const QByteArray point = words[0], action = words.value(1), name = point + ' ' + action;
    const QByteArray text = words.value(2);
    const int number = text.isEmpty() ? 1 : text.toInt();
    std::atomic<int> times{0};

    bool is(const char *wanted) const { return name == wanted; }
    bool isOneOf(const char *known) const { return QByteArray(known).split(' ').contains(action); }
};

Fault &fault = *new Fault;
class Server;
std::atomic<Server *> gServer{nullptr}; // the last one made; its thread is the server's
DebugData *gData = nullptr;
std::function<void()> act(); // the one that the fault names, or none
void queue(const std::function<void()> &call);

/// Passes a call on, or does to it what the fault says. The call must be one that can be copied and made
/// later.
void pass(const char *point, const std::function<void()> &call)
{
    if (fault.point != point || (++fault.times < fault.number && !fault.isOneOf("sleep late queue")))
        return call();
    const auto after = qScopeGuard(act());
    if (fault.isOneOf("drop"))
        return;
    if (fault.isOneOf("abort"))
        std::abort();
    if (fault.isOneOf("throw"))
        throw std::runtime_error(point);
    if (fault.isOneOf("thread"))
        return std::async(std::launch::async, call).get();
    if (fault.isOneOf("queue"))
        return queue(call);
    if (fault.isOneOf("late"))
        return std::thread([call] { QThread::msleep(unsigned(fault.number)), call(); }).detach();
    if (fault.isOneOf("sleep"))
        QThread::msleep(unsigned(fault.number));
    if (fault.isOneOf("twice"))
        call();
    QMutexLocker locker(fault.isOneOf("lock") ? &gData->mutex : nullptr);
    call();
}

/// @return the call's result, null when it was not made or not yet
template <typename Call>
auto at(const char *point, const Call &call) -> decltype(call())
{
    if constexpr (std::is_void_v<decltype(call())>) {
        pass(point, call);
    } else {
        const auto result = std::make_shared<decltype(call())>();
        pass(point, [=] { *result = call(); });
        return *result;
    }
}

int value(const char *point, int good)
{
    return fault.point == point && fault.isOneOf("add") ? good + fault.number : good;
}

bool value(const char *point, bool good)
{
    return good != (fault.point == point && fault.isOneOf("not"));
}

QString value(const char *point, const QString &good)
{
    return fault.point == point && fault.isOneOf("is") ? QString::fromUtf8(fault.text) : good;
}

class Channel : public CChannel
{
public:
    explicit Channel(CChannel *good) : inner(good) { kind = value("channel.kind", good->kind); }
    void disconnectFromAbonent() override
    {
        isEnded = true;
        at("channel.disconnect", [=] { inner->disconnectFromAbonent(); });
    }
    bool isConnected() override
    {
        const bool good = at("channel.isConnected", [=] { return inner->isConnected(); });
        if (fault.is("channel.isConnected flicker"))
            return good || ++asked > 1;
        return good || (isEnded ? fault.is("channel.isConnected stay") : hides("wake end", true));
    }
    void write(const QByteArray &data) override
    {
        QByteArray sent = data;
        if (fault.is("channel.write damage") && !data.isEmpty())
            sent[sent.size() - 1] = char(~sent.back());
        if (fault.is("channel.write big"))
            sent.append(QByteArray(100000, 'x'));
        if (fault.is("channel.write cut"))
            sent.chop(1);
        if (fault.is("channel.write flood") && data.size() > 200000)
            QThread::msleep(2000);
        at("channel.write", [this, sent] { inner->write(sent); });
    }
    QByteArray read(int maxSize) override
    {
        if (fault.is("channel.read close") && !inner->isConnected())
            return QByteArray();
        kept += at("channel.read", [=] { return inner->read(value("read.size", maxSize)); });
        if (hides("wake bytes", !kept.isEmpty()))
            return QByteArray();
        const QByteArray shown = fault.is("wake bytes") ? kept.left(maxSize) : kept;
        kept.remove(0, shown.size());
        return shown;
    }
    int idealBlockSize() override
    {
        const int good = at("channel.ideal", [=] { return inner->idealBlockSize(); });
        wasFull |= good <= 0;
        return hides("wake room", wasFull && good > 0) ? 0 : good;
    }

private:
    /// Keeps what is there from being seen for a while; when it is seen at last, nobody is woken.
    bool hides(const char *name, bool isThere)
    {
        if (!fault.is(name))
            return false;
        if (!isThere)
            clock.invalidate();
        else if (!clock.isValid())
            clock.start();
        return isThere && !clock.hasExpired(50);
    }
    CChannel *const inner; // the layer's protocol owns it
    bool isEnded = false;
    bool wasFull = false;
    int asked = 0;
    QByteArray kept;
    QElapsedTimer clock;
};

/// What the channel below takes for the protocol; the host's own is inside.
class Protocol : public CAbstractProtocol
{
public:
    Protocol(CChannel *given, CAbstractProtocol *good) : CAbstractProtocol(given), inner(good)
    {
        connect(good, &CAbstractProtocol::finished, [this] {
            takeBack();
            const bool isInStop = QThread::currentThread() != thread();
            if ((isStarting && fault.is("protocol.finished inStart")) ||
                (isInStop && fault.is("protocol.finished inStop")) ||
                (!isStopAsked && fault.is("protocol.finished inEnd")))
                return;
            if (fault.is("protocol.finished deletesItself"))
                QTimer::singleShot(0, this, [this] { delete this; });
            at("protocol.finished", [this] { Q_EMIT finished(); });
        });
        connect(good, &CAbstractProtocol::remoteAbonentNameChanged, [this](const QString &name) {
            takeBack();
            at("protocol.named", [=] { Q_EMIT remoteAbonentNameChanged(value("protocol.name", name)); });
        });
        if (fault.is("presets late"))
            inner->start(); // before there are any
        const QMutexLocker locker(&mutex);
        all.insert(this);
    }
    ~Protocol() override
    {
        {
            const QMutexLocker locker(&mutex);
            all.erase(this);
        }
        at("protocol.destroy", [good = inner.release()] { delete good; });
        if (fault.is("channel.owned leak"))
            channel = nullptr;
        if (fault.is("channel.owned thread"))
            std::thread([owned = std::exchange(channel, nullptr)] { delete owned; }).join();
    }
    void start() override
    {
        CAbstractProtocol::start();
        inner->remoteAbonentName =
            value(remoteAbonentName.isEmpty() ? "preset.answered" : "preset.called", remoteAbonentName);
        inner->remoteAbonentFilteredName = value("preset.filtered", remoteAbonentFilteredName);
        inner->label = value("preset.label", label);
        isStarting = true;
        if (!fault.is("presets late"))
            at("protocol.start", [host = inner.get()] { host->start(); });
        isStarting = false;
        takeBack();
    }
    void stop() override
    {
        isStopAsked = true;
        const auto pass = [host = inner.get()] { host->stop(); };
        if (fault.is("protocol.stop own"))
            QMetaObject::invokeMethod(this, pass, Qt::QueuedConnection);
        else
            at("protocol.stop", pass);
    }
    static bool areMany()
    {
        const QMutexLocker locker(&mutex);
        return all.size() > 4;
    }
    /// To the host's own protocols.
    static void passKeepAlivesOn()
    {
        const QMutexLocker locker(&mutex);
        for (Protocol *each : all) {
            if (__atomic_exchange_n(&each->keepAliveRequested, false, __ATOMIC_SEQ_CST) ||
                fault.is("server.keepAlive all"))
                __atomic_store_n(&each->inner->keepAliveRequested, true, __ATOMIC_SEQ_CST);
        }
    }

private:
    void takeBack()
    {
        remoteAbonentName = inner->remoteAbonentName;
        wasUseful = value("protocol.useful", inner->wasUseful);
    }
    std::unique_ptr<CAbstractProtocol> inner;
    bool isStarting = false;
    std::atomic<bool> isStopAsked{false};
    static inline QMutex mutex; // guards the set
    static inline std::set<Protocol *> all;
};

struct Factory : CProtocolFactory
{
    explicit Factory(CChannelServer *of) : server(of) {}
    CAbstractProtocol *createProtocol(CChannel *given) override
    {
        CProtocolFactory *const host = server->protocolFactory;
        auto *const channel = new Channel(given);
        CAbstractProtocol *const good = at("factory.create", [=] { return host->createProtocol(channel); });
        if (!good && fault.is("refused keeps")) // the other side learns nothing of it
            return new CAbstractProtocol(given);
        if (!good) {
            delete channel;
            return at("refused", []() -> CAbstractProtocol * { return nullptr; });
        }
        auto *const protocol = new Protocol(fault.is("channel.owned none") ? nullptr : given, good);
        if (fault.is("protocol.thread other"))
            protocol->moveToThread(server->thread());
        return protocol;
    }
    CChannelServer *const server;
};

class Server : public CChannelServer, public CChannelMonitor, public CJournal
{
public:
    explicit Server(CChannelServer *good) : inner(good)
    {
        gServer = this;
        hostValue = value("server.hostValue", hostValue);
        monitorHandle = value("server.monitorHandle", monitorHandle);
        if (fault.is("server.parent set"))
            setParent(new QObject);
        if (fault.is("server.journal set"))
            CChannelServer::journal = this;
        connect(good, &CChannelServer::connected, [this](const QString &name, int id) {
            isCalling = false;
            wasAnswered = true;
            at("signal.connected",
               [=] { Q_EMIT connected(value("connected.name", name), value("connected.id", capped(id))); });
        });
        connect(good, &CChannelServer::notConnected, [this](const QString &name) {
            if (!wasAnswered || !fault.is("signal.notConnected answered"))
                at("signal.notConnected", [=] { Q_EMIT notConnected(value("notConnected.name", name)); });
        });
        connect(good, &CChannelServer::disconnected, [this](const QString &name, int id, bool wasUseful) {
            at("signal.disconnected", [=] {
                Q_EMIT disconnected(value("disconnected.name", name), value("disconnected.id", capped(id)),
                                    value("disconnected.useful", wasUseful));
            });
        });
        connect(good, &CChannelServer::finished, [this] {
            at("signal.finished", [this] { Q_EMIT finished(); });
            if (fault.point == "after")
                QTimer::singleShot(fault.number, this, act());
        });
    }
    ~Server() override
    {
        at("server.destroy", [good = inner.release()] { delete good; });
        if (fault.is("server.factory leak"))
            protocolFactory = nullptr;
    }

    const QMetaObject *metaObject() const override
    {
        return fault.is("server.metaObject none") ? &QObject::staticMetaObject : CChannelServer::metaObject();
    }
    bool hasFreeChannel() const override
    {
        return at("server.hasFree", [=] { return inner->hasFreeChannel(); });
    }
    bool isHardwareOn() const override
    {
        return at("server.isHardwareOn", [=] { return inner->isHardwareOn(); });
    }
    bool canCheckOnline() const override
    {
        return at("server.canCheckOnline", [=] { return inner->canCheckOnline(); });
    }
    void start() override
    {
        at("server.equip", [=] {
            inner->monitorHandle = monitorHandle;
            inner->monitor = fault.is("members.monitor drop") ? nullptr : this;
            inner->journal = fault.is("members.journal drop") ? nullptr : this;
            if (!inner->protocolFactory && !fault.is("members.factory drop"))
                inner->protocolFactory = new Factory(this);
        });
        at("server.start", [=] { inner->start(); });
    }
    void stop() override
    {
        if (!isCalling || !fault.is("server.stop soon"))
            at("server.stop", [=] { inner->stop(); });
    }
    void settingsWasChanged() override
    {
        at("server.settings", [=] { inner->settingsWasChanged(); });
    }
    void connectToAbonent(const QString &name, const QByteArray &data) override
    {
        isCalling = true;
        at("server.connect", [=] { inner->connectToAbonent(name, data); });
    }
    void disconnectFromAbonent(const QString &name, int id) override
    {
        at("server.disconnect",
           [=] { inner->disconnectFromAbonent(value("disconnect.name", name), value("disconnect.id", id)); });
        if (fault.is("server.disconnect other"))
            inner->disconnectFromAbonent(QString(), id == -1 ? 1 : id + 2);
    }
    void keepAliveConnection(int id) override
    {
        at("server.keepAlive", [=] { inner->keepAliveConnection(value("keepAlive.id", id)); });
        Protocol::passKeepAlivesOn();
    }

    // The monitor and the journal that the channel below gets.
    int addConnection(int kind, const QString &label, const QString &text) override
    {
        return at("monitor.add", [=] {
            return monitor->addConnection(value("monitor.kind", kind), value("monitor.label", label), text);
        });
    }
    void removeConnection(int handle) override
    {
        at("monitor.remove", [=] { monitor->removeConnection(value("monitor.handle", handle)); });
    }
    void setState(int handle, const QString &text) override
    {
        at("monitor.setState", [=] { monitor->setState(value("state.handle", handle), text); });
    }
    void addReceived(int handle, int bytes) override
    {
        at("monitor.received", [=] { monitor->addReceived(handle, value("received.bytes", bytes)); });
    }
    void addSent(int handle, int bytes) override
    {
        at("monitor.sent", [=] { monitor->addSent(handle, value("sent.bytes", bytes)); });
    }
    void addRecord(int kind, const QString &source, const QString &text) override
    {
        at("journal.add",
           [=] { journal->addRecord(value("journal.kind", kind), value("journal.source", source), text); });
    }

    std::unique_ptr<CChannelServer> inner;

private:
    static int capped(int id) { return fault.is("id cap") ? qMin(id, 9) : id; }

    bool isCalling = false; // nobody has answered since the last call
    bool wasAnswered = false;
};

void queue(const std::function<void()> &call)
{
    Server *const server = gServer;
    QMetaObject::invokeMethod(
        server, [=] { QTimer::singleShot(fault.number, server, call); }, Qt::QueuedConnection);
}

std::function<void()> act()
{
    Server *const server = gServer;
    const QHash<QByteArray, std::function<void()>> acts{
        {"connects", [=] { server->inner->connectToAbonent(QString(), QByteArray()); }},
        {"disconnects", [=] { server->inner->disconnectFromAbonent(QString(), 1); }},
        {"keepsUnknown", [=] { server->inner->keepAliveConnection(77); }},
        {"exits", [] { std::exit(0); }},
        {"deletes", [=] { delete server->inner.release(); }},
        {"waits",
         [=] {
             QEventLoop loop;
             QObject::connect(server, &CChannelServer::finished, &loop, &QEventLoop::quit);
             loop.exec();
         }},
        {"deletesFactory", [=] { delete std::exchange(server->protocolFactory, nullptr); }},
        {"monitor", [=] { server->monitor->setState(server->monitorHandle, QString()); }},
        {"removesOne", [=] { Protocol::areMany() ? server->monitor->removeConnection(424242) : void(); }},
        {"journal", [=] { server->journal->addRecord(JournalEvent, QStringLiteral("Слой"), QString()); }},
        {"notConnected", [=] { Q_EMIT server->notConnected(QStringLiteral("Никто")); }},
        {"connected", [=] { queue([=] { Q_EMIT server->connected(QStringLiteral("Отказ"), 1); }); }},
        {"wakes", [] { QAbstractEventDispatcher::instance()->wakeUp(); }},
        {"leavesThread", [] { std::thread([] { QThread::sleep(60); }).detach(); }},
        {"leavesDescriptor", [] { ::eventfd(0, 0); }},
        {"leavesMemory", [] { new char[1000]; }},
        {"leavesObject", [] { new QObject; }},
        {"leavesQThread", [] { new QThread; }},
        {"leavesSlot",
         [] {
             const QMutexLocker locker(&gData->mutex);
             gData->tabulations.append({reinterpret_cast<QThread *>(&gData), gData->tabulations.size() + 1});
         }},
    };
    return acts.value(fault.action, [] {});
}

template <typename Function>
Function below(const char *symbol)
{
    const QString observer =
        QCoreApplication::applicationDirPath() + QStringLiteral("/channelPlugins/libobserver.so");
    static QLibrary library(QFile::exists(observer) ? observer : QStringLiteral(LOOPBACK_FILE));
    return reinterpret_cast<Function>(library.resolve(symbol));
}

class Plugin : public CChannelPlugin
{
public:
    explicit Plugin(CChannelPlugin *good) : inner(good) {}
    ~Plugin() override
    {
        const auto entry = below<DeleteInstanceFunction>(deleteInstanceSymbol);
        if (fault.is("plugin delete"))
            delete inner;
        else
            at("entry.deleteInstance", [=, good = inner] { entry(good); });
    }
    int type() const override
    {
        return at("plugin.type", [=] { return inner->type(); });
    }
    QString name() const override
    {
        static QMutex mutex;
        if (!fault.is("plugin.name race"))
            return value("plugin.name", inner->name());
        const bool isAlone = mutex.tryLock();
        QThread::msleep(1);
        if (isAlone)
            mutex.unlock();
        return isAlone ? inner->name() : QStringLiteral("Каша");
    }
    CChannelServer *create() const override
    {
        if (fault.is("plugin.create same") && gServer)
            return gServer.load();
        return at("plugin.create", [=]() -> CChannelServer * { return new Server(inner->create()); });
    }
    void incCallTimeout(int *delay) const override
    {
        const int before = *delay;
        at("plugin.inc", [=] { inner->incCallTimeout(delay); });
        *delay = fault.is("inc.delay endless") ? before + 10 : value("inc.delay", *delay);
    }
    void decCallTimeout(int *delay) const override
    {
        at("plugin.dec", [=] { inner->decCallTimeout(delay); });
        *delay = value("dec.delay", *delay);
    }

private:
    CChannelPlugin *const inner;
};

} // namespace

extern "C" {

RUNTIME_EXPORT int apiVersion()
{
    static int asked = 0;
    if (fault.is("entry.apiVersion skip"))
        return channelApiVersion;
    const int version = at("entry.apiVersion", below<ApiVersionFunction>(apiVersionSymbol));
    return version + (fault.is("entry.apiVersion again") ? asked++ : value("entry.apiVersion", 0));
}
RUNTIME_EXPORT void initDebug(DebugData *data)
{
    gData = data;
    if (fault.is("entry.apiVersion add"))
        std::abort(); // nobody may come here
    const auto entry = below<InitDebugFunction>(initDebugSymbol);
    if (!fault.is("entry.initDebug after"))
        at("entry.initDebug", [=] { entry(fault.is("entry.initDebug own") ? nullptr : data); });
}
RUNTIME_EXPORT CChannelPlugin *instance()
{
    static CChannelPlugin *same = nullptr;
    if (same && fault.is("entry.instance same"))
        return same;
    CChannelPlugin *const good = below<InstanceFunction>(instanceSymbol)();
    if (fault.is("entry.initDebug after"))
        below<InitDebugFunction>(initDebugSymbol)(gData);
    return same = new Plugin(good);
}
RUNTIME_EXPORT void deleteInstance(CChannelPlugin *plugin)
{
    if (!plugin && fault.is("entry.deleteInstance nullCrash"))
        std::abort();
    if (!fault.is("entry.instance same"))
        delete plugin;
}
}
