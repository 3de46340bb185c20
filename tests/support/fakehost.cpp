#include "tests/support/fakehost.h"

#include <QAbstractEventDispatcher>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

int Recorder::addConnection(int kind, const QString &label, const QString &text)
{
    const int handle = ++lastHandle;
    ++shown;
    setState(handle, "%1 %2 %3"_s.arg(QString::number(kind), label, text));
    return handle;
}

void Recorder::removeConnection(int handle)
{
    --shown;
    setState(handle, "removed"_s);
}

void Recorder::setState(int handle, const QString &text)
{
    note("monitor %1: %2"_s.arg(QString::number(handle), text));
}

void Recorder::addRecord(int kind, const QString &source, const QString &text)
{
    note("journal %1 %2: %3"_s.arg(QString::number(kind), source, text));
}

void Recorder::note(const QString &text)
{
    if (listener)
        return listener(text);
    const QMutexLocker locker(&mutex);
    texts.append(text);
}

QStringList Recorder::take(const QString &start)
{
    const QMutexLocker locker(&mutex);
    const auto first = std::stable_partition(texts.begin(), texts.end(),
                                             [&](const QString &text) { return !text.startsWith(start); });
    const QStringList taken(first, texts.end());
    texts.erase(first, texts.end());
    return taken;
}

bool Recorder::heard(const QString &text) const
{
    const QMutexLocker locker(&mutex);
    return texts.contains(text);
}

bool Recorder::waitFor(const QString &text) const
{
    return soon([&] { return heard(text); });
}

ScriptedProtocol::ScriptedProtocol(CChannel *ownedChannel) : CAbstractProtocol(ownedChannel) {}

ScriptedProtocol::~ScriptedProtocol()
{
    if (onDelete)
        onDelete(this);
}

void ScriptedProtocol::start()
{
    CAbstractProtocol::start();
    connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake, this,
            &ScriptedProtocol::lookAtChannel);
    if (onStart)
        onStart(this);
}

void ScriptedProtocol::stop()
{
    if (onStop)
        onStop(this);
    else
        Q_EMIT finished();
}

void ScriptedProtocol::announce(const QString &name)
{
    remoteAbonentName = name;
    Q_EMIT remoteAbonentNameChanged(name);
}

void ScriptedProtocol::lookAtChannel()
{
    if (onAwake) {
        onAwake(this);
        return;
    }
    const QByteArray bytes = channel->read(65536);
    if (!bytes.isEmpty()) {
        wasUseful = true;
        channel->write(bytes);
    } else if (!channel->isConnected()) {
        Q_EMIT finished();
    }
}

CAbstractProtocol *ScriptedFactory::createProtocol(CChannel *channel)
{
    if (refuses)
        return nullptr;
    auto *protocol = new ScriptedProtocol(channel);
    if (script)
        script(protocol);
    ++made;
    return protocol;
}

FakeHost::FakeHost(CChannelServer *equippedServer) : server(equippedServer)
{
    server->protocolFactory = factory;
    server->monitor = this;
    server->journal = this;
    using Server = CChannelServer;
    QObject::connect(server, &Server::connected, [this](const QString &name, int id) {
        note("connected %1 %2"_s.arg(name, QString::number(id)));
    });
    QObject::connect(server, &Server::notConnected,
                     [this](const QString &name) { note("notConnected "_s + name); });
    QObject::connect(server, &Server::disconnected, [this](const QString &name, int id, bool useful) {
        note("disconnected %1 %2 %3"_s.arg(name, QString::number(id), useful ? "useful"_s : "idle"_s));
    });
}

bool FakeHost::stopServer(int ms)
{
    QSignalSpy finished(server, &CChannelServer::finished);
    server->stop();
    return finished.wait(ms);
}

bool echoes(QTcpSocket *client, const QByteArray &bytes, int ms)
{
    client->write(bytes);
    QByteArray answer;
    QElapsedTimer clock;
    clock.start();
    while (answer.size() < bytes.size() && !clock.hasExpired(ms)) {
        QTest::qWait(1);
        answer += client->readAll();
    }
    return answer == bytes;
}
