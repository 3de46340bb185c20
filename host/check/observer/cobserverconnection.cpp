#include "host/check/observer/cobserverconnection.h"

#include "common/debugdata.h"
#include "common/namefilter.h"
#include "host/check/observer/hostcall.h"

#include <utility>

namespace {

constexpr int scriptMs = 5;      // between two turns
constexpr int scriptTurns = 40;  // of a far end that sends
constexpr int closingTurns = 10; // of one that only ends
constexpr int endLimitMs = 3000; // for finished() after a stop or the end of the connection
constexpr int afterwardsMs = 50; // for a finished() too many
constexpr int longLoopMs = 1000; // asleep
constexpr int pieceSizes[] = {1, 2, 3, 7, 16, 64, 255, 1024, 4095, 4096, 20000};

} // namespace

CObserverConnection::CObserverConnection(CChannelServer *of, int number, FarEnd playing,
                                         std::shared_ptr<CObserverLine> both, QString called)
    : id(number), farEnd(playing), server(of), line(std::move(both)), calledName(std::move(called)),
      label(QStringLiteral("Наблюдатель %1").arg(number)), abonentName(calledName)
{}

bool CObserverConnection::isOf(const QString &name) const
{
    return Global::filterName(abonentName) == Global::filterName(name);
}

void CObserverConnection::stop()
{
    isStopAsked = true;
    isStopWaiting = true;
    const QMutexLocker locker(&mutex);
    if (protocol && isStopWaiting.exchange(false))
        hostCall("stop-returns", QStringLiteral("stop() протокола"), [this] { protocol->stop(); });
}

void CObserverConnection::keepAlive()
{
    const QMutexLocker locker(&mutex);
    if (protocol)
        __atomic_store_n(&protocol->keepAliveRequested, true, __ATOMIC_SEQ_CST);
}

void CObserverConnection::run()
{
    const QString text = calledName.isNull() ? QStringLiteral("Входящее соединение")
                                             : QStringLiteral("Вызываем абонента '%1'").arg(calledName);
    const int handle = hostCall("monitor-threads", QStringLiteral("addConnection()"),
                                [&] { return server->monitor->addConnection(observerKind, label, text); });
    hostCall("journal-threads", QStringLiteral("addRecord()"),
             [&] { server->journal->addRecord(JournalEvent, label, text); });
    if (begin(handle)) {
        exec(); // until the protocol says finished()
        QTimer::singleShot(afterwardsMs, script, [this] { quit(); });
        exec(); // for what comes too often
        reportEnd();
        end();
    } else if (!calledName.isNull()) {
        Q_EMIT server->notConnected(calledName);
    }
    hostCall("monitor-threads", QStringLiteral("removeConnection()"),
             [&] { server->monitor->removeConnection(handle); });
    deleteThreadTabLevel(this);
}

/// @return null when the host refuses the connection
CAbstractProtocol *CObserverConnection::makeProtocol(int handle)
{
    auto channel = std::make_unique<CObserverChannel>(line, calledName.isNull(), server->monitor, handle);
    channel->isGone = &isChannelGone;
    CAbstractProtocol *const made = hostCall("factory-threads", QStringLiteral("createProtocol()"), [&] {
        return server->protocolFactory->createProtocol(channel.get());
    });
    if (!made)
        return nullptr;
    Report::judge("protocol-thread", made->thread() == this->currentThread(),
                  QStringLiteral("Протокол живет не в том потоке, в котором его просили"));
    isBound = made->channel == channel.get();
    Report::judge("channel-bound", isBound,
                  QStringLiteral("CAbstractProtocol::channel - не тот канал, который дан createProtocol()"));
    channel.release(); // NOLINT: the protocol's
    return made;
}

bool CObserverConnection::begin(int handle)
{
    const QMutexLocker locker(&mutex);
    protocol = makeProtocol(handle);
    if (!protocol)
        return false;
    watchProtocol();
    if (!calledName.isNull()) {
        protocol->remoteAbonentName = calledName;
        protocol->remoteAbonentFilteredName = Global::filterName(calledName);
    }
    protocol->label = label;
    hostCall("connection-loop", QStringLiteral("start() протокола"), [this] { protocol->start(); });
    if (isStopWaiting.exchange(false))
        hostCall("stop-returns", QStringLiteral("stop() протокола"), [this] { protocol->stop(); });
    sinceTurn = std::make_unique<CStopwatch>();
    script = new QTimer;
    connect(script, &QTimer::timeout, script, [this] { play(); });
    script->start(scriptMs);
    return true;
}

void CObserverConnection::watchProtocol()
{
    connect(
        protocol, &CAbstractProtocol::finished, this,
        [this] {
            ++finishedCount;
            quit();
        },
        Qt::DirectConnection);
    connect(
        protocol, &QObject::destroyed, this,
        [this] {
            Report::judge("protocol-kept", isDeleting, QStringLiteral("Программа удалила протокол сама"));
            if (!isDeleting)
                protocol = nullptr;
        },
        Qt::DirectConnection);
    connect(
        protocol, &CAbstractProtocol::remoteAbonentNameChanged, this,
        [this](const QString &name) {
            const bool isHere = QThread::currentThread() == this;
            Report::judge(
                "name-told", isHere && name == protocol->remoteAbonentName,
                isHere ? QStringLiteral("remoteAbonentNameChanged('%1'), а в remoteAbonentName стоит '%2'")
                             .arg(name, protocol->remoteAbonentName)
                       : QStringLiteral("remoteAbonentNameChanged пришел не из потока соединения"));
            QMetaObject::invokeMethod(
                server,
                [this, name] {
                    abonentName = name;
                    Q_EMIT server->connected(name, id);
                },
                Qt::QueuedConnection);
        },
        Qt::DirectConnection);
}

/// One turn of the far end.
void CObserverConnection::play()
{
    ++turn;
    const int ms = sinceTurn->asleep(); // but for the moments between two turns that is the host's code
    Report::judge("connection-loop", ms <= longLoopMs,
                  QStringLiteral("Протокол держал цикл событий своего потока %1 мс").arg(ms));
    sinceTurn = std::make_unique<CStopwatch>();
    if (isStopAsked && !isAtEnd)
        return expectEnd("finished-after-stop", QStringLiteral("После stop() протокол не сказал finished()"));
    if (!line->isConnected() && !isAtEnd)
        return expectEnd("finished-after-end",
                         QStringLiteral("Соединение закончилось, а протокол не сказал finished()"));
    if (isAtEnd || farEnd == FarEnd::Host || farEnd == FarEnd::Silent)
        return;
    const bool sends = farEnd == FarEnd::Flood || farEnd == FarEnd::Deaf;
    if (sends) {
        QByteArray piece(pieceSizes[turn % int(std::size(pieceSizes))], Qt::Uninitialized);
        for (int i = 0; i < piece.size(); ++i)
            piece.data()[i] = char(128 + (i * 31 + turn) % 128); // no line, no name
        line->put(0, piece);
    }
    if (farEnd == FarEnd::Flood)
        line->take(0, CObserverLine::blockBytes);
    if (turn >= (sends ? scriptTurns : closingTurns))
        line->disconnect();
}

void CObserverConnection::expectEnd(const char *rule, const QString &text)
{
    isAtEnd = true;
    QTimer::singleShot(endLimitMs, script, [this, rule, text] {
        if (!Report::isBroken("no-exception")) // one may have kept the protocol from hearing of it
            Report::broken(rule, text);
        quit();
    });
}

void CObserverConnection::reportEnd()
{
    if (finishedCount > 0)
        Report::kept(isStopAsked ? "finished-after-stop" : "finished-after-end");
    Report::judge("finished-once", finishedCount <= 1,
                  QStringLiteral("Протокол сказал finished() %1 раз").arg(finishedCount));
    if (!protocol)
        return;
    const QString name = protocol->remoteAbonentName;
    if (!calledName.isNull() && !name.isEmpty() && Global::filterName(name) != Global::filterName(calledName))
        Q_EMIT server->notConnected(calledName);
    if (!name.isEmpty() || !calledName.isNull())
        Q_EMIT server->disconnected(name.isEmpty() ? calledName : name, id, protocol->wasUseful);
}

void CObserverConnection::end()
{
    delete std::exchange(script, nullptr);
    Report::judge("channel-freed", !isChannelGone || !protocol,
                  QStringLiteral("Канал удален раньше протокола"));
    const QMutexLocker locker(&mutex);
    if (!protocol)
        return;
    isDeleting = true;
    delete std::exchange(protocol, nullptr);
    if (isBound)
        Report::judge("channel-freed", isChannelGone, QStringLiteral("Протокол удален, а его канал остался"));
}
