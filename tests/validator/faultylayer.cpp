#include "tests/validator/faultylayer.h"

#include "common/debugdata.h"
#include "interfaces/cabstractprotocol.h"
#include "interfaces/cchannelserver.h"

#include <QAbstractEventDispatcher>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

#include <sys/eventfd.h>

namespace {

ApiVersionFunction innerApiVersion = nullptr;
InitDebugFunction innerInitDebug = nullptr;
InstanceFunction innerInstance = nullptr;
DeleteInstanceFunction innerDeleteInstance = nullptr;
DebugData *gData = nullptr;
std::atomic<QObject *> gServer{nullptr}; // the last one made; its thread is the server's

struct Fault
{
    Fault()
    {
        const QList<QByteArray> words = qgetenv("FAULT").split(' ');
        point = words.value(0);
        action = words.value(1);
        text = words.value(2);
        number = text.isEmpty() ? 1 : text.toInt();
    }
    QByteArray point, action, text;
    int number;
    std::atomic<int> times{0};
};

Fault &chosen()
{
    static Fault *const only = new Fault;
    return *only;
}

/// Passes a call on, or does to it what the fault says. The call must be one that can be copied and made
/// later.
template <typename Call>
auto at(const char *point, const Call &call) -> decltype(call())
{
    using Result = decltype(call());
    Fault &fault = chosen();
    if (fault.point != point)
        return call();
    const bool isTimed = fault.action == "sleep" || fault.action == "late" || fault.action == "queue";
    if (++fault.times < fault.number && !isTimed)
        return call();
    if (fault.action == "sleep")
        QThread::msleep(unsigned(fault.number));
    else if (fault.action == "drop")
        return Result();
    else if (fault.action == "twice")
        call();
    else if (fault.action == "abort")
        std::abort();
    else if (fault.action == "throw")
        throw std::runtime_error(point);
    if (fault.action == "lock") {
        const QMutexLocker locker(&gData->mutex);
        return call();
    }
    if (fault.action == "thread") {
        std::unique_ptr<std::conditional_t<std::is_void_v<Result>, int, Result>> result;
        std::thread([&] {
            if constexpr (std::is_void_v<Result>)
                call();
            else
                result = std::make_unique<Result>(call());
        }).join();
        if constexpr (std::is_void_v<Result>)
            return;
        else
            return *result;
    }
    if constexpr (std::is_void_v<Result>) {
        if (fault.action == "late") {
            const int ms = fault.number;
            std::thread([call, ms] {
                QThread::msleep(unsigned(ms));
                call();
            }).detach();
            return;
        }
        if (fault.action == "queue") {
            QObject *const server = gServer;
            QMetaObject::invokeMethod(
                server, [=, ms = fault.number] { QTimer::singleShot(ms, server, call); },
                Qt::QueuedConnection);
            return;
        }
    }
    return call();
}

int value(const char *point, int good)
{
    return FaultyLayer::fault(point, "add") ? good + chosen().number : good;
}

bool value(const char *point, bool good)
{
    return FaultyLayer::fault(point, "not") ? !good : good;
}

QString value(const char *point, const QString &good)
{
    return FaultyLayer::fault(point, "is") ? QString::fromUtf8(chosen().text) : good;
}

/// What should not be left behind by a connection.
void leak()
{
    if (chosen().point != "leak")
        return;
    if (chosen().action == "thread")
        std::thread([] { QThread::sleep(60); }).detach();
    else if (chosen().action == "descriptor")
        ::eventfd(0, 0);
    else if (chosen().action == "memory")
        new char[size_t(chosen().number)];
    else if (chosen().action == "object")
        new QObject;
    else if (chosen().action == "qthread")
        new QThread;
    if (chosen().action == "slot") {
        const QMutexLocker locker(&gData->mutex);
        gData->tabulations.append({reinterpret_cast<QThread *>(&gData), gData->tabulations.size() + 1});
    }
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
        if (FaultyLayer::fault("wake", "always"))
            QAbstractEventDispatcher::instance()->wakeUp();
        if (!good && FaultyLayer::fault("channel.isConnected", "flicker"))
            return ++asked > 1;
        if (!good && !isEnded && FaultyLayer::fault("wake", "end"))
            return !sinceEnd.isOver();
        return value("channel.isConnected", good) ||
               (FaultyLayer::fault("channel.isConnected", "stay") && isEnded);
    }
    void write(const QByteArray &data) override
    {
        QByteArray sent = data;
        if (FaultyLayer::fault("channel.write", "damage") && !data.isEmpty())
            sent[sent.size() - 1] = char(~sent.back());
        if (FaultyLayer::fault("channel.write", "big"))
            sent.append(QByteArray(100000, 'x'));
        if (FaultyLayer::fault("channel.write", "cut"))
            sent.chop(1);
        if (FaultyLayer::fault("channel.write", "flood") && data.size() > 200000)
            QThread::msleep(2000);
        at("channel.write", [this, sent] { inner->write(sent); });
    }
    QByteArray read(int maxSize) override
    {
        if (FaultyLayer::fault("channel.read", "close") && !inner->isConnected())
            return QByteArray();
        const QByteArray bytes = at("channel.read", [=] { return inner->read(value("read.size", maxSize)); });
        if (bytes.isEmpty() && FaultyLayer::fault("channel.read", "wait"))
            QThread::msleep(700);
        if (!FaultyLayer::fault("wake", "bytes"))
            return bytes;
        kept += bytes; // shown a little later, when nobody is woken for them
        if (kept.isEmpty() || !bytes.isEmpty() || !sinceBytes.isOver())
            return QByteArray();
        sinceBytes = Delay();
        const QByteArray shown = kept.left(maxSize);
        kept.remove(0, shown.size());
        return shown;
    }
    int idealBlockSize() override
    {
        const int good = at("channel.ideal", [=] { return inner->idealBlockSize(); });
        if (good <= 0)
            wasFull = true;
        if (FaultyLayer::fault("wake", "room") && wasFull && good > 0 && !sinceRoom.isOver())
            return 0;
        return FaultyLayer::fault("channel.ideal", "none") ? 0 : value("channel.ideal", good);
    }

private:
    /// Runs from the first question.
    struct Delay
    {
        bool isOver()
        {
            if (!clock.isValid())
                clock.start();
            return clock.elapsed() > 50;
        }
        QElapsedTimer clock;
    };
    CChannel *const inner; // the layer's protocol owns it
    bool isEnded = false;
    bool wasFull = false;
    int asked = 0;
    QByteArray kept;
    Delay sinceEnd, sinceBytes, sinceRoom;
};

/// What the channel below takes for the protocol; the host's own is inside.
class Protocol : public CAbstractProtocol
{
public:
    Protocol(CChannel *given, CAbstractProtocol *good) : CAbstractProtocol(given), inner(good)
    {
        connect(
            inner.get(), &CAbstractProtocol::finished, this,
            [this] {
                takeBack();
                const bool isInStop = QThread::currentThread() != thread();
                if ((isStarting && FaultyLayer::fault("protocol.finished", "inStart")) ||
                    (isInStop && FaultyLayer::fault("protocol.finished", "inStop")) ||
                    (!isStopAsked && FaultyLayer::fault("protocol.finished", "inEnd")))
                    return;
                if (FaultyLayer::fault("protocol.finished", "deletes"))
                    QTimer::singleShot(0, this, [this] { delete this; });
                at("protocol.finished", [this] { Q_EMIT finished(); });
            },
            Qt::DirectConnection);
        connect(
            inner.get(), &CAbstractProtocol::remoteAbonentNameChanged, this,
            [this](const QString &name) {
                takeBack();
                at("protocol.named", [=] { Q_EMIT remoteAbonentNameChanged(value("protocol.name", name)); });
            },
            Qt::DirectConnection);
        if (FaultyLayer::fault("presets", "late"))
            inner->start(); // before there are any
    }
    ~Protocol() override
    {
        CAbstractProtocol *const good = inner.release();
        at("protocol.destroy", [=] { delete good; });
        leak();
        if (FaultyLayer::fault("channel.owned", "leak"))
            channel = nullptr;
        if (FaultyLayer::fault("channel.owned", "thread"))
            std::thread([owned = std::exchange(channel, nullptr)] { delete owned; }).join();
    }
    void start() override
    {
        CAbstractProtocol::start();
        inner->remoteAbonentName = remoteAbonentName.isEmpty() ? value("preset.answered", remoteAbonentName)
                                                               : value("preset.called", remoteAbonentName);
        inner->remoteAbonentFilteredName = value("preset.filtered", remoteAbonentFilteredName);
        inner->label = value("preset.label", label);
        CAbstractProtocol *const host = inner.get();
        isStarting = true;
        if (!FaultyLayer::fault("presets", "late"))
            at("protocol.start", [=] { host->start(); });
        isStarting = false;
        takeBack();
    }
    void stop() override
    {
        isStopAsked = true;
        CAbstractProtocol *const host = inner.get();
        if (FaultyLayer::fault("protocol.stop", "own"))
            QMetaObject::invokeMethod(
                this, [=] { host->stop(); }, Qt::QueuedConnection);
        else
            at("protocol.stop", [=] { host->stop(); });
    }
    void passKeepAliveOn(bool isForced)
    {
        if (__atomic_exchange_n(&keepAliveRequested, false, __ATOMIC_SEQ_CST) || isForced)
            __atomic_store_n(&inner->keepAliveRequested, true, __ATOMIC_SEQ_CST);
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
};

class Server;

class Factory : public CProtocolFactory
{
public:
    explicit Factory(Server *of) : server(of) {}
    CAbstractProtocol *createProtocol(CChannel *channel) override;

private:
    Server *const server;
};

class Server : public CChannelServer, public CChannelMonitor, public CJournal
{
public:
    explicit Server(CChannelServer *good) : inner(good)
    {
        gServer = this;
        hostValue = value("server.hostValue", hostValue);
        monitorHandle = value("server.monitorHandle", monitorHandle);
        if (FaultyLayer::fault("server.parent", "set"))
            setParent(new QObject);
        if (FaultyLayer::fault("server.journal", "set"))
            CChannelServer::journal = this;
        const auto direct = Qt::DirectConnection;
        connect(
            good, &CChannelServer::connected, this,
            [this](const QString &name, int id) {
                isCalling = false;
                wasAnswered = true;
                at("signal.connected", [=] {
                    Q_EMIT connected(value("connected.name", name), value("connected.id", capped(id)));
                });
            },
            direct);
        connect(
            good, &CChannelServer::notConnected, this,
            [this](const QString &name) {
                if (wasAnswered && FaultyLayer::fault("signal.notConnected", "answered"))
                    return;
                at("signal.notConnected", [=] { Q_EMIT notConnected(value("notConnected.name", name)); });
            },
            direct);
        connect(
            good, &CChannelServer::disconnected, this,
            [this](const QString &name, int id, bool wasUseful) {
                at("signal.disconnected", [=] {
                    Q_EMIT disconnected(value("disconnected.name", name),
                                        value("disconnected.id", capped(id)),
                                        value("disconnected.useful", wasUseful));
                });
                if (FaultyLayer::fault("signal.disconnected", "notConnected"))
                    Q_EMIT notConnected(name);
            },
            direct);
        connect(
            good, &CChannelServer::finished, this,
            [this] {
                at("signal.finished", [this] { Q_EMIT finished(); });
                if (FaultyLayer::fault("server.finished", "factory"))
                    delete std::exchange(protocolFactory, nullptr);
                at("server.quiet", [] {});
                if (chosen().point == "after") // a host object is called after finished()
                    afterwards();
            },
            direct);
    }
    ~Server() override
    {
        CChannelServer *const good = inner.release();
        at("server.destroy", [=] { delete good; });
        if (FaultyLayer::fault("server.factory", "leak"))
            protocolFactory = nullptr;
    }

    const QMetaObject *metaObject() const override
    {
        return FaultyLayer::fault("server.metaObject", "none") ? &QObject::staticMetaObject
                                                               : CChannelServer::metaObject();
    }
    bool hasFreeChannel() const override
    {
        return value("hasFree", at("server.hasFree", [=] { return inner->hasFreeChannel(); }));
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
        if (FaultyLayer::fault("server.start", "connects"))
            inner->connectToAbonent(QString(), QByteArray());
        equip();
        at("server.start", [=] { inner->start(); });
    }
    void stop() override
    {
        if (FaultyLayer::fault("server.stop", "soon") && isCalling)
            return;
        at("server.stop", [=] { inner->stop(); });
        if (FaultyLayer::fault("server.stop", "waits")) {
            QEventLoop loop;
            connect(this, &CChannelServer::finished, &loop, &QEventLoop::quit);
            loop.exec();
        }
        if (FaultyLayer::fault("server.stop", "connects"))
            inner->connectToAbonent(QString(), QByteArray());
        if (FaultyLayer::fault("server.stop", "exits"))
            std::exit(0);
        if (FaultyLayer::fault("server.stop", "deletes"))
            delete inner.release();
    }
    void settingsWasChanged() override
    {
        at("server.settings", [=] { inner->settingsWasChanged(); });
        if (FaultyLayer::fault("server.settings", "busy") && protocols.size() > 4)
            monitor->removeConnection(424242);
        if (FaultyLayer::fault("server.settings", "often") && ++settingsChanges == 100)
            inner->disconnectFromAbonent(QString(), 1);
        if (FaultyLayer::fault("server.settings", "disconnects"))
            inner->disconnectFromAbonent(QString(), 1);
    }
    void connectToAbonent(const QString &name, const QByteArray &data) override
    {
        isCalling = true;
        at("server.connect", [=] { inner->connectToAbonent(value("called.name", name), data); });
        if (FaultyLayer::fault("server.connect", "unknown"))
            inner->keepAliveConnection(77);
        if (FaultyLayer::fault("server.connect", "garbage") && data.size() > 60000)
            std::abort();
    }
    void disconnectFromAbonent(const QString &name, int id) override
    {
        at("server.disconnect",
           [=] { inner->disconnectFromAbonent(value("disconnect.name", name), value("disconnect.id", id)); });
        if (FaultyLayer::fault("server.disconnect", "other"))
            inner->disconnectFromAbonent(QString(), id == -1 ? 1 : id + 2);
        if (FaultyLayer::fault("server.disconnect", "unknown") && id > 1000)
            inner->disconnectFromAbonent(QString(), 1);
        if (FaultyLayer::fault("server.disconnect", "byNumberOnly") && id == -1)
            inner->disconnectFromAbonent(QString(), 4000);
    }
    void keepAliveConnection(int id) override
    {
        const bool all = FaultyLayer::fault("server.keepAlive", "all");
        at("server.keepAlive", [=] { inner->keepAliveConnection(value("keepAlive.id", id)); });
        const QMutexLocker locker(&mutex);
        for (Protocol *each : protocols)
            each->passKeepAliveOn(all);
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

    void enter(Protocol *protocol)
    {
        const QMutexLocker locker(&mutex);
        protocols.push_back(protocol);
        connect(
            protocol, &QObject::destroyed, this,
            [this, protocol] {
                const QMutexLocker again(&mutex);
                protocols.erase(std::remove(protocols.begin(), protocols.end(), protocol), protocols.end());
            },
            Qt::DirectConnection);
    }

private:
    static int capped(int id)
    {
        constexpr int most = 9;
        return FaultyLayer::fault("id", "cap") ? std::min(id, most) : id;
    }
    void equip()
    {
        inner->monitorHandle = monitorHandle;
        inner->monitor = FaultyLayer::fault("members.monitor", "drop") ? nullptr : this;
        inner->journal = FaultyLayer::fault("members.journal", "drop") ? nullptr : this;
        if (!inner->protocolFactory && !FaultyLayer::fault("members.factory", "drop"))
            inner->protocolFactory = new Factory(this);
    }
    void afterwards()
    {
        const int handle = monitorHandle;
        const auto call = [this, handle] {
            if (chosen().action == "monitor")
                monitor->setState(handle, QString());
            else if (chosen().action == "journal")
                journal->addRecord(JournalEvent, QStringLiteral("Слой"), QString());
            else if (chosen().action == "signal")
                Q_EMIT notConnected(QStringLiteral("Никто"));
            else if (chosen().action == "finished")
                Q_EMIT finished();
        };
        QTimer::singleShot(chosen().number, this, call);
    }

    std::unique_ptr<CChannelServer> inner;
    QMutex mutex; // guards the list
    std::vector<Protocol *> protocols;
    int settingsChanges = 0;
    bool isCalling = false; // nobody has answered since the last call
    bool wasAnswered = false;
};

CAbstractProtocol *Factory::createProtocol(CChannel *given)
{
    auto channel = std::make_unique<Channel>(given);
    CProtocolFactory *const host = server->protocolFactory;
    Channel *const passed = channel.get();
    CAbstractProtocol *const good = at("factory.create", [=] { return host->createProtocol(passed); });
    if (!good) {
        if (FaultyLayer::fault("refused", "keeps")) { // the other side learns nothing of it
            channel.release();
            return new CAbstractProtocol(given);
        }
        if (FaultyLayer::fault("refused", "connected"))
            QMetaObject::invokeMethod(
                server, [this] { Q_EMIT server->connected(QStringLiteral("Отказ"), 1); },
                Qt::QueuedConnection);
        return nullptr;
    }
    channel.release(); // NOLINT: the host's protocol has it
    auto *const protocol = new Protocol(FaultyLayer::fault("channel.owned", "none") ? nullptr : given, good);
    server->enter(protocol);
    if (FaultyLayer::fault("protocol.thread", "other"))
        protocol->moveToThread(server->thread());
    return protocol;
}

class Plugin : public CChannelPlugin
{
public:
    explicit Plugin(CChannelPlugin *good) : inner(good) {}
    ~Plugin() override
    {
        if (FaultyLayer::fault("plugin", "delete"))
            delete inner;
        else
            at("entry.deleteInstance", [good = inner] { innerDeleteInstance(good); });
    }
    int type() const override
    {
        return at("plugin.type", [=] { return inner->type(); });
    }
    QString name() const override
    {
        static std::atomic<int> inside{0};
        const bool isAlone = ++inside == 1;
        if (FaultyLayer::fault("plugin.name", "race"))
            QThread::msleep(1);
        --inside;
        return isAlone || !FaultyLayer::fault("plugin.name", "race") ? value("plugin.name", inner->name())
                                                                     : QStringLiteral("Каша");
    }
    CChannelServer *create() const override
    {
        if (FaultyLayer::fault("plugin.create", "null"))
            return nullptr;
        if (FaultyLayer::fault("plugin.create", "same")) {
            static auto *const same = new Server(inner->create());
            return same;
        }
        return at("plugin.create", [=] { return new Server(inner->create()); });
    }
    void incCallTimeout(int *delay) const override
    {
        const int before = *delay;
        at("plugin.inc", [=] { inner->incCallTimeout(delay); });
        *delay = FaultyLayer::fault("inc.delay", "endless") ? before + 10 : value("inc.delay", *delay);
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

namespace FaultyLayer {

bool fault(const char *point, const char *action)
{
    const Fault &only = chosen();
    return only.point == point && only.action == action;
}

void over(ApiVersionFunction apiVersionBelow, InitDebugFunction initDebugBelow,
          InstanceFunction instanceBelow, DeleteInstanceFunction deleteInstanceBelow)
{
    innerApiVersion = apiVersionBelow;
    innerInitDebug = initDebugBelow;
    innerInstance = instanceBelow;
    innerDeleteInstance = deleteInstanceBelow;
}

int apiVersion()
{
    static int asked = 0;
    if (fault("entry.apiVersion", "drop"))
        return channelApiVersion;
    const int version = at("entry.apiVersion", [] { return innerApiVersion(); });
    return fault("entry.apiVersion", "again") && ++asked > 1 ? version + 1
                                                             : value("entry.apiVersion", version);
}

void initDebug(DebugData *data)
{
    gData = data;
    if (fault("entry.apiVersion", "add"))
        std::abort(); // nobody may come here
    if (fault("entry.initDebug", "own"))
        return innerInitDebug(nullptr);
    if (!fault("entry.initDebug", "after"))
        at("entry.initDebug", [=] { innerInitDebug(data); });
}

CChannelPlugin *instance()
{
    static CChannelPlugin *same = nullptr;
    if (same && fault("entry.instance", "same"))
        return same;
    CChannelPlugin *const good = innerInstance();
    if (fault("entry.initDebug", "after"))
        innerInitDebug(gData);
    return same = new Plugin(good);
}

void deleteInstance(CChannelPlugin *plugin)
{
    if (!plugin && fault("entry.deleteInstance", "nullCrash"))
        std::abort();
    if (!fault("entry.instance", "same"))
        delete plugin;
}

} // namespace FaultyLayer
