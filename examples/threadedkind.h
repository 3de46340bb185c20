// What kinds with a thread for each connection have in common: a server that keeps connections, and a
// connection from set-up to farewell. A kind adds its channel, and how calls are placed and answered.
#pragma once

#include "common/global.h"
#include "common/logger.h"
#include "interfaces/cabstractprotocol.h"
#include "interfaces/cchannelserver.h"

#include <QDeadlineTimer>
#include <QMutex>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <utility>

/// Makes the channel of a connection, or null when nobody answers. [connection thread]
using MakeChannel = std::function<std::unique_ptr<CChannel>(int monitorHandle)>;

/// One end of a call: the object lives in the server thread, run() in its own.
class CThreadedConnection : public QThread
{
public:
    static constexpr int lockWaitMs = 50; // a protocol's start() may hold the lock for long

    CThreadedConnection(CChannelServer *itsServer, int itsKind, QString itsLabel, int itsId)
        : server(itsServer), kind(itsKind), label(std::move(itsLabel)), id(itsId)
    {}
    void begin(const QString &called, MakeChannel make) // while it does not run
    {
        calledName = abonentName = called;
        makeChannel = std::move(make);
        stopRequested = false;
        start();
    }
    void stop()
    {
        stopRequested = true; // run() passes it on if the protocol is not there yet
        withProtocol([this](CAbstractProtocol *each) { passStopOn(each); });
    }
    void keepAlive()
    {
        withProtocol([](CAbstractProtocol *each) {
            __atomic_store_n(&each->keepAliveRequested, true, __ATOMIC_SEQ_CST);
        });
    }

    QString abonentName; // the server thread's own

protected:
    void run() override
    {
        const QString text = calledName.isNull() ? QStringLiteral("Входящее соединение")
                                                 : QStringLiteral("Вызываем абонента '%1'").arg(calledName);
        const int handle = server->monitor->addConnection(kind, label, text);
        server->journal->addRecord(JournalEvent, label, text);
        if (startProtocol(std::exchange(makeChannel, nullptr)(handle))) { // which keeps nothing open
            exec(); // until the protocol says finished()
            sayFarewell();
            const QMutexLocker locker(&mutex);
            delete protocol; // and with it the channel
            protocol = nullptr;
        } else if (!calledName.isNull()) {
            Q_EMIT server->notConnected(calledName);
        }
        server->monitor->removeConnection(handle);
    }

private:
    bool startProtocol(std::unique_ptr<CChannel> channel)
    {
        const QMutexLocker locker(&mutex);
        protocol = channel ? server->protocolFactory->createProtocol(channel.get()) : nullptr;
        if (!protocol)
            return false;
        channel.release(); // the protocol's
        connect(protocol, &CAbstractProtocol::finished, this, &QThread::quit, Qt::DirectConnection);
        connect(protocol, &CAbstractProtocol::remoteAbonentNameChanged, this, [this](const QString &name) {
            abonentName = name; // queued: in the server thread
            Q_EMIT server->connected(name, id);
        });
        protocol->remoteAbonentName = calledName;
        protocol->remoteAbonentFilteredName = Global::filterName(calledName);
        protocol->label = label;
        protocol->start();
        passStopOn(protocol);
        return true;
    }
    void sayFarewell()
    {
        const QString name = protocol->remoteAbonentName.isEmpty() ? calledName : protocol->remoteAbonentName;
        if (!calledName.isNull() && Global::filterName(name) != Global::filterName(calledName))
            Q_EMIT server->notConnected(calledName); // somebody else has answered
        if (!name.isEmpty())
            Q_EMIT server->disconnected(name, id, protocol->wasUseful);
    }
    template <typename Action>
    void withProtocol(const Action &action)
    {
        if (!mutex.tryLock(lockWaitMs))
            return;
        if (protocol)
            action(protocol);
        mutex.unlock();
    }
    void passStopOn(CAbstractProtocol *to) // under the mutex; a protocol hears of each request once
    {
        if (stopRequested.exchange(false))
            to->stop();
    }

    CChannelServer *const server;
    const int kind;
    const QString label;
    const int id;
    QString calledName; // null for the end that answers
    MakeChannel makeChannel;
    std::atomic<bool> stopRequested{false};
    QMutex mutex; // guards the protocol between this thread and those that stop it
    CAbstractProtocol *protocol = nullptr;
};

/// All but the signals is [server thread].
class CThreadedServer : public CChannelServer
{
public:
    static constexpr int stopMs = 9000;

    CThreadedServer(int itsKind, QString itsName) : kind(itsKind), name(std::move(itsName)) {}

    bool hasFreeChannel() const override { return true; }
    bool isHardwareOn() const override { return true; }
    bool canCheckOnline() const override { return true; }

    void start() override
    {
        journal->addRecord(JournalEvent, name, QStringLiteral("Запуск"));
        const QString error = listen();
        if (!error.isNull())
            journal->addRecord(JournalError, name, error);
        monitor->setState(monitorHandle, error.isNull() ? QStringLiteral("Работает") : error);
    }
    void stop() override
    {
        QMetaObject::invokeMethod(
            this, [this] { internalStop(); }, Qt::QueuedConnection);
    }
    void disconnectFromAbonent(const QString &abonent, int connectionId) override
    {
        for (int i = 0; i < connections.size(); ++i) {
            const bool isNamed =
                Global::filterName(connections[i]->abonentName) == Global::filterName(abonent);
            if (i + 1 == connectionId || (connectionId == -1 && isNamed))
                return connections[i]->stop();
        }
    }
    void keepAliveConnection(int connectionId) override
    {
        if (CThreadedConnection *one = connections.value(connectionId - 1))
            one->keepAlive();
    }

protected:
    /// Begins to answer calls. @return null, or why it cannot
    virtual QString listen() { return QString(); }
    virtual void stopListening() {}

    void call(const QString &abonent, const MakeChannel &make)
    {
        debug(QStringLiteral("CThreadedServer"), QStringLiteral("Вызываем абонента '%1'").arg(abonent),
              DebugTransportConnects, DebugFlagNone);
        open(abonent.isNull() ? QStringLiteral("") : abonent, make);
    }
    void answer(const MakeChannel &make) { open(QString(), make); }

private:
    /// Takes a connection that is free, or makes one. @param called null for the end that answers
    void open(const QString &called, const MakeChannel &make)
    {
        const auto isFree = [](const CThreadedConnection *each) { return each->isFinished(); };
        auto place = std::find_if(connections.begin(), connections.end(), isFree);
        if (place == connections.end()) {
            const int id = connections.size() + 1;
            connections += new CThreadedConnection(this, kind, QStringLiteral("%1 %2").arg(name).arg(id), id);
            place = connections.end() - 1;
        }
        (*place)->begin(called, make);
    }
    void internalStop()
    {
        journal->addRecord(JournalEvent, name, QStringLiteral("Остановка"));
        stopListening();
        for (CThreadedConnection *each : qAsConst(connections))
            each->stop();
        const QDeadlineTimer limit(stopMs);
        for (CThreadedConnection *each : qAsConst(connections)) {
            if (!each->wait(limit)) {
                each->quit(); // a protocol that does not listen; one that blocks its thread for ever is
                              // beyond help
                each->wait();
            }
            deleteThreadTabLevel(each);
            delete each;
        }
        connections.clear();
        monitor->setState(monitorHandle, QStringLiteral("Выключен"));
        Q_EMIT finished();
    }

    const int kind;
    const QString name;
    QList<CThreadedConnection *> connections; // since the last stop, running or free; owned
};
