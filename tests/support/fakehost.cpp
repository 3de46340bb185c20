#include "tests/support/fakehost.h"

#include <QAbstractEventDispatcher>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

int RecordingMonitor::addConnection(int kind, const QString &label, const QString &text)
{
    const QMutexLocker locker(&mutex);
    entries.insert(++lastHandle, {"%1 %2"_s.arg(kind).arg(label), {text}});
    return lastHandle;
}

RecordingMonitor::Entry RecordingMonitor::entry(int handle) const
{
    const QMutexLocker locker(&mutex);
    return entries.value(handle);
}

int RecordingMonitor::shown() const
{
    const QMutexLocker locker(&mutex);
    return int(std::count_if(entries.cbegin(), entries.cend(),
                             [](const Entry &entry) { return !entry.label.isEmpty() && !entry.removed; }));
}

void RecordingJournal::addRecord(int kind, const QString &source, const QString &text)
{
    const QMutexLocker locker(&mutex);
    records.append("%1 %2: %3"_s.arg(QString::number(kind), source, text));
}

QStringList RecordingJournal::take()
{
    const QMutexLocker locker(&mutex);
    return std::exchange(records, {});
}

bool RecordingJournal::contains(const QString &record) const
{
    const QMutexLocker locker(&mutex);
    return records.contains(record);
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

FakeHost::FakeHost(CChannelServer *equippedServer) : factory(new ScriptedFactory), server(equippedServer)
{
    server->protocolFactory = factory;
    server->monitor = &monitor;
    server->journal = &journal;
    const auto heard = [this](auto signal, auto slot) {
        connect(server, signal, this, slot, Qt::DirectConnection);
    };
    heard(&CChannelServer::connected,
          [this](const QString &name, int id) { note("connected %1 %2"_s.arg(name, QString::number(id))); });
    heard(&CChannelServer::notConnected, [this](const QString &name) { note("notConnected "_s + name); });
    heard(&CChannelServer::disconnected, [this](const QString &name, int id, bool useful) {
        note("disconnected %1 %2 "_s.arg(name, QString::number(id)) + (useful ? "useful"_s : "idle"_s));
    });
}

bool FakeHost::stopServer(int ms)
{
    QSignalSpy finished(server, &CChannelServer::finished);
    server->stop();
    return finished.wait(ms);
}

QStringList FakeHost::takeSignals()
{
    const QMutexLocker locker(&mutex);
    return std::exchange(received, {});
}

bool FakeHost::waitForSignal(const QString &text, int ms)
{
    return QTest::qWaitFor(
        [&] {
            const QMutexLocker locker(&mutex);
            return received.contains(text);
        },
        ms);
}

void FakeHost::note(const QString &text)
{
    const QMutexLocker locker(&mutex);
    received.append(text);
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
