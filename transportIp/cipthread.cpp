#include "transportIp/cipthread.h"

#include "common/debugdata.h"
#include "common/descriptor.h"
#include "common/functiontrace.h"
#include "common/logwriter.h"
#include "common/namefilter.h"
#include "common/settingonce.h"
#include "common/terminationguard.h"
#include "interfaces/cabstractprotocol.h"
#include "interfaces/cchannelserver.h"
#include "transportIp/cconnectiondispatcher.h"
#include "transportIp/cipchannel.h"
#include "transportIp/cipsocket.h"
#include "transportIp/ipchannelkind.h"
#include "transportIp/threadcheck.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QHostAddress>

#include <cerrno>
#include <memory>
#include <utility>

#include <pthread.h>

namespace {

constexpr int connectEventsMs = 20;
constexpr int connectPollMs = 10;
constexpr int reportWaitMs = 50; // a report of a worker left behind may hang in the host

constexpr DebugLevel logLevel = DebugTransportConnects;

void log(const QString &text)
{
    debug(QStringLiteral("CIpThread"), text, logLevel, DebugFlagNone);
}

/// While one lives inside a CTerminationGuard, its thread can be ended after all.
class TerminationWindow
{
public:
    TerminationWindow() { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &previousState); }
    ~TerminationWindow() { pthread_setcancelstate(previousState, nullptr); }

    TerminationWindow(const TerminationWindow &) = delete;
    TerminationWindow &operator=(const TerminationWindow &) = delete;

private:
    int previousState = PTHREAD_CANCEL_DISABLE;
};

/// Keeps what nobody may destroy any more within sight of those who look for leaks.
void keepForEver(QObject *object)
{
    static QMutex &mutex = *new QMutex;
    static QList<QObject *> &objects = *new QList<QObject *>;
    const QMutexLocker locker(&mutex);
    objects.append(object);
}

// The C library keeps 40 MiB of the stacks of ended threads for new ones.
constexpr unsigned stackBytes = 4 * 1024 * 1024;

QString withoutMappedPrefix(QString address)
{
    const QLatin1String prefix("::ffff:");
    return address.startsWith(prefix) ? address.mid(prefix.size()) : address;
}

} // namespace

CIpThread::CIpThread(CChannelServer *reportedServer, int id)
    : server(reportedServer), connectionId(id), label(ipConnectionLabel(id)),
      report(reportedServer, hostAccess), control(this)
{
    setStackSize(stackBytes);
}

CIpThread::~CIpThread()
{
    delete eventDispatcher(); // only left when the last start failed
}

bool CIpThread::answer(qintptr descriptor)
{
    ASSERT_IN_THREAD(thread());
    mode = AnswerCall;
    socketDescriptor = descriptor;
    if (launch())
        return true;
    CDescriptor(int(descriptor)).reset(); // leaves errno alone
    return false;
}

bool CIpThread::call(const QString &name, const AbonentIpSettings &settings)
{
    ASSERT_IN_THREAD(thread());
    mode = PlaceCall;
    abonentSettings = settings;
    names.setCurrent(name);
    return launch();
}

bool CIpThread::isFree()
{
    ASSERT_IN_THREAD(thread());
    // A thread that is just ending still has its dispatcher; a moment later it has not.
    constexpr unsigned long endingMs = 20;
    return !isRunning() && wait(endingMs);
}

bool CIpThread::launch()
{
    control.beginNext();
    names.beginNext();
    if (!eventDispatcher())
        setEventDispatcher(new CConnectionDispatcher);
    start(QThread::InheritPriority);
    if (isRunning() || isFinished())
        return true;
    errno = EAGAIN; // what thread creation fails with
    return false;
}

void CIpThread::stop()
{
    const CTerminationGuard guard;
    TRACE_FUNCTION;
    control.stop();
}

void CIpThread::passStopOn()
{
    control.passStopOn();
}

void CIpThread::keepAlive()
{
    const CTerminationGuard guard;
    TRACE_FUNCTION;
    control.keepAlive();
}

void CIpThread::run()
{
    const CTerminationGuard guard; // but for the conversation itself
    TRACE_FUNCTION;

    if (mode == AnswerCall)
        adoptDescriptor();
    else if (!placeCall())
        return; // reported where it failed

    if (startProtocol()) {
        converse(); // until the protocol says finished()
        reportFarewell();
        deleteProtocol(); // and with it channel and socket
    } else {
        reportRefusedProtocol();
    }
}

void CIpThread::adoptDescriptor()
{
    socket = new CIpSocket;
    socket->setSocketDescriptor(socketDescriptor, QAbstractSocket::ConnectedState, QIODevice::ReadWrite);
    transport.remember(int(socket->socketDescriptor()));

    abonentSettings.address = withoutMappedPrefix(socket->peerAddress().toString());
    abonentSettings.port = socket->peerPort();
    names.setCurrent(QString());
    if (isDebugOn(logLevel)) // every connection comes by
        log(QStringLiteral("Входящее соединение от %1:%2 (handle: %3, connectionId: %4)")
                .arg(abonentSettings.address, QString::number(abonentSettings.port),
                     QString::number(socketDescriptor), QString::number(connectionId)));

    const QString text = QStringLiteral("Входящее соединение от ") + abonentSettings.address;
    monitorHandle = report.addConnection(ipChannelKind, label, text);
    journalEvent(text);
}

/// @return whether the call is connected; a failure has been reported
bool CIpThread::placeCall()
{
    calledName = names.current();
    const QString port = QString::number(abonentSettings.port);
    log(QStringLiteral("Вызываем абонента '%1' %2:%3 (connectionId: %4)")
            .arg(calledName, abonentSettings.address, port, QString::number(connectionId)));

    const QString callingText =
        QStringLiteral("Вызываем абонента '%1' (%2:%3)").arg(calledName, abonentSettings.address, port);
    monitorHandle = report.addConnection(ipChannelKind, label, callingText);
    journalEvent(callingText);

    socket = new CIpSocket;
    if (!waitForConnection()) {
        if (control.isStopRequested())
            reportCancelledCall(callingText);
        else
            reportFailedCall();
        report.removeConnection(monitorHandle);
        return false;
    }
    socket->tune();
    transport.remember(int(socket->socketDescriptor()));

    const QString text = QStringLiteral("Установлено соединение с %1:%2").arg(abonentSettings.address, port);
    log(text);
    report.setState(monitorHandle, text);
    journalEvent(text);
    return true;
}

/// @return whether the socket is connected; false also when a stop was asked for, whatever its state
bool CIpThread::waitForConnection()
{
    static CSettingOnce connectTimeout(&CSettings::detailsTransportIpConnectTimeout); // ms
    const auto isConnecting = [this] {
        return socket->state() == QAbstractSocket::HostLookupState ||
               socket->state() == QAbstractSocket::ConnectingState;
    };
    socket->connectToHost(abonentSettings.address, quint16(abonentSettings.port), QIODevice::ReadWrite,
                          QAbstractSocket::AnyIPProtocol);
    QElapsedTimer clock;
    clock.start();
    QEventLoop loop;
    while (clock.elapsed() < connectTimeout.value() && !control.isStopRequested() && isConnecting()) {
        loop.processEvents(QEventLoop::AllEvents, connectEventsMs);
        if (isConnecting())
            msleep(connectPollMs);
    }
    return !control.isStopRequested() && socket->state() == QAbstractSocket::ConnectedState;
}

void CIpThread::reportCancelledCall(const QString &callingText)
{
    log(QStringLiteral("Вызов отменен (connectionId: %1)").arg(connectionId));
    socket->abort();
    socket->deleteLater();
    report.addRecord(JournalEvent, QStringLiteral("Вызов отменен"), callingText);
}

void CIpThread::reportFailedCall()
{
    const QString reason = socket->errorString();
    log(QStringLiteral("Не удалось установить соединение с '%1': %2. %3")
            .arg(calledName, QString::number(socket->error()), reason));
    journalEvent(QStringLiteral("Не удалось установить соединение с '%1'. %2").arg(calledName, reason));
    socket->abort();
    socket->deleteLater();
    report.notConnected(calledName);
}

/// @return false when the host made no protocol; the channel is gone then
bool CIpThread::startProtocol()
{
    auto madeChannel = std::make_unique<CIpChannel>(socket, monitorHandle, &report);

    control.beginSetUp();
    protocol = createProtocol(madeChannel.get());
    if (!protocol) {
        control.endSetUp(nullptr);
        transport.forget();
        return false;
    }
    channel = madeChannel.release(); // the protocol's
    connectProtocol();
    if (mode == PlaceCall) {
        protocol->remoteAbonentName = calledName;
        protocol->remoteAbonentFilteredName = Global::filterName(calledName);
    }
    protocol->label = label;
    protocol->start();
    if (control.endSetUp(protocol)) // a stop came meanwhile: from the server's thread, hence through it
        QMetaObject::invokeMethod(this, &CIpThread::passStopOn, Qt::QueuedConnection);
    return true;
}

CAbstractProtocol *CIpThread::createProtocol(CChannel *channelForIt)
{
    const CHostAccess::Use host(hostAccess);
    return host ? server->protocolFactory->createProtocol(channelForIt) : nullptr;
}

void CIpThread::connectProtocol()
{
    connect(protocol, &CAbstractProtocol::finished, this, &QThread::quit, Qt::DirectConnection);
    connect(
        protocol, &CAbstractProtocol::remoteAbonentNameChanged, this,
        [this, handle = monitorHandle](const QString &name) {
            const CTerminationGuard guard;
            names.announce(handle);
            // By name: Qt hands the argument over, out of the thread sanitizer's sight, which does not
            // know the lock of Qt's event queue.
            QMetaObject::invokeMethod(this, "remoteAbonentNameChanged", Q_ARG(QString, name));
        },
        Qt::DirectConnection);
    connect(socket, &QAbstractSocket::errorOccurred, this, &CIpThread::socketError, Qt::DirectConnection);
}

void CIpThread::reportRefusedProtocol()
{
    log(QStringLiteral("Протокол соединения не создан, соединение закрыто (connectionId: %1)")
            .arg(connectionId));
    if (mode == PlaceCall) {
        journalEvent(QStringLiteral("Не удалось установить соединение с '%1'").arg(calledName));
        report.notConnected(calledName);
    }
    report.removeConnection(monitorHandle);
}

void CIpThread::converse()
{
    const TerminationWindow window;
    exec();
}

void CIpThread::reportFarewell()
{
    const QString remoteName = protocol->remoteAbonentName;
    if (isDebugOn(logLevel)) // every connection comes by
        log(QStringLiteral("Потеряно соединение с абонентом '%1' %2:%3")
                .arg(remoteName, abonentSettings.address, QString::number(abonentSettings.port)));
    journalEvent(QStringLiteral("Потеряно соединение с абонентом '") + remoteName + QLatin1Char('\''));

    const bool isCall = mode == PlaceCall;
    if (isCall && !remoteName.isEmpty() && Global::filterName(remoteName) != Global::filterName(calledName)) {
        report.notConnected(calledName); // somebody else has answered
        journalEvent(QStringLiteral("Не удалось установить соединение с '%1'").arg(calledName));
    }
    if (!remoteName.isEmpty())
        report.disconnected(remoteName, connectionId, protocol->wasUseful);
    else if (isCall)
        report.disconnected(calledName, connectionId, protocol->wasUseful);
    report.removeConnection(monitorHandle);
}

void CIpThread::deleteProtocol()
{
    transport.forget();
    control.release();
    channel = nullptr;
    delete protocol;
    protocol = nullptr;
}

void CIpThread::cleanUpAfterTermination()
{
    ASSERT_IN_THREAD(thread());
    if (!channel)
        return;
    // The protocol itself is left alone: its destructor is the host's code, and the thread may have
    // died inside one of the host's locks.
    transport.forget();
    std::exchange(channel, nullptr)->dropSocket();
    keepForEver(protocol);
    report.removeConnection(monitorHandle);
}

void CIpThread::leaveBehind()
{
    ASSERT_IN_THREAD(thread());
    transport.shutDown();
    control.dropWaitingStop();
    hostAccess.revoke(reportWaitMs);
    // Whatever it logs until it ends by itself after all.
    connect(
        this, &QThread::finished, this, [this] { deleteThreadTabLevel(this); }, Qt::DirectConnection);
    keepForEver(this);
}

void CIpThread::socketError(QAbstractSocket::SocketError error)
{
    TRACE_FUNCTION;
    debug(QStringLiteral("CIpThread"),
          QStringLiteral("Socket error: %1. %2").arg(QString::number(error), socket->errorString()),
          DebugTransportIpSocketError, DebugFlagNone);
}

void CIpThread::remoteAbonentNameChanged(const QString &name)
{
    TRACE_FUNCTION;
    const int handle = names.takeAnnounced(name);
    report.connected(name, connectionId);
    const QString text = QStringLiteral("Установлено соединение с '%1'").arg(name);
    report.setState(handle, text);
    journalEvent(text);
}

void CIpThread::journalEvent(const QString &text)
{
    report.addRecord(JournalEvent, label, text);
}
