// The life of the IP server: start, listen and retry, settings, queries.
#include "transportIp/cipserver.h"

#include "common/directorylayout.h"
#include "common/functiontrace.h"
#include "common/logwriter.h"
#include "common/safesaving.h"
#include "common/trustedfile.h"
#include "transportIp/cipsettings.h"
#include "transportIp/ipchannelkind.h"
#include "transportIp/threadcheck.h"

#include <QFile>

#include <cerrno>
#include <utility>

namespace {

constexpr int listenRetryMs = 30000;
constexpr int refusalReportMs = 1000;

void log(const QString &text)
{
    debug(QStringLiteral("CIpServer"), text, DebugAlways, DebugFlagNone);
}

} // namespace

CIpServer::CIpServer()
    : listenRetry(this), refusalPause(this), firstFree(std::make_shared<std::atomic<int>>(0))
{
    TRACE_FUNCTION;
    qRegisterMetaType<QAbstractSocket::SocketError>();
    listenRetry.setSingleShot(true);
    listenRetry.setInterval(listenRetryMs);
    connect(&listenRetry, &QTimer::timeout, this, &CIpServer::tryListen);
    refusalPause.setSingleShot(true);
    refusalPause.setInterval(refusalReportMs);
    connect(&refusalPause, &QTimer::timeout, this, &CIpServer::reportLastRefusal);
}

CIpServer::~CIpServer()
{
    const QList<CIpThread *> running = runningWorkers();
    for (CIpThread *worker : running) // a host that skipped the stop: at least no worker finds us gone
        worker->leaveBehind();
    delete tcpServer;
}

QString CIpServer::name()
{
    return ipChannelName();
}

bool CIpServer::hasFreeChannel() const
{
    TRACE_FUNCTION;
    ASSERT_IN_THREAD(thread());
    return CurrentIpSettings::all().maxConnections > runningWorkers().size();
}

bool CIpServer::isHardwareOn() const
{
    ASSERT_IN_THREAD(thread());
    return true;
}

bool CIpServer::canCheckOnline() const
{
    TRACE_FUNCTION;
    ASSERT_IN_THREAD(thread());
    return CurrentIpSettings::all().canCheckOnline;
}

void CIpServer::start()
{
    TRACE_FUNCTION;
    ASSERT_IN_THREAD(thread());
    journal->addRecord(JournalEvent, name(), QStringLiteral("Запуск"));
    loadSettings();
    if (!tcpServer) {
        tcpServer = new CTcpServer(this);
        connect(tcpServer, &QTcpServer::newConnection, this, &CIpServer::inputConnection);
        connect(tcpServer, &QTcpServer::acceptError, this, &CIpServer::serverAcceptError,
                Qt::DirectConnection);
    }
    tryListen();
}

void CIpServer::stop()
{
    TRACE_FUNCTION;
    ASSERT_IN_THREAD(thread());
    listenRetry.stop();
    journal->addRecord(JournalEvent, name(), QStringLiteral("Остановка"));
    QMetaObject::invokeMethod(this, &CIpServer::internalStop, Qt::QueuedConnection);
}

void CIpServer::settingsWasChanged()
{
    TRACE_FUNCTION;
    ASSERT_IN_THREAD(thread());
    const int formerPort = CurrentIpSettings::all().port;
    loadSettings();
    if (!tcpServer || !tcpServer->isListening() || CurrentIpSettings::all().port == formerPort)
        return; // a listen that failed is repeated anyway, then on the new port

    log(QStringLiteral("Зафиксировано изменение настроек порта. Перезапуск TCP сервера."));
    tcpServer->closeListener();
    start();
}

void CIpServer::tryListen()
{
    TRACE_FUNCTION;
    ASSERT_IN_THREAD(thread());
    const int port = CurrentIpSettings::all().port;
    const QString portText = QString::number(port);
    if (tcpServer->listenOn(quint16(port))) {
        listenRetry.stop();
        monitor->setState(monitorHandle, QStringLiteral("Работает"));
        journal->addRecord(JournalEvent, name(),
                           QStringLiteral("TCP сервер успешно запущен на %1 порту").arg(portText));
        return;
    }

    const QString reason = tcpServer->errorString();
    log(QStringLiteral("Не удалось создать TCP сервер на %1 порту. %2").arg(portText, reason));
    const QString text = QStringLiteral("Ошибка запуска TCP сервера на %1 порту. %2").arg(portText, reason);
    monitor->setState(monitorHandle, text);
    journal->addRecord(JournalError, name(), text);
    listenRetry.start();
}

void CIpServer::loadSettings()
{
    TRACE_FUNCTION;
    // The record in force is replaced in one go, so that no connection sees a value on its way.
    ChannelIpSettings settings = CurrentIpSettings::all();
    settings.maxConnections = 10;
    settings.port = 18001;
    settings.blockSizeKb = 64;

    const QString fileName = Global::channelIpSettingsFilePath();
    Global::recoverSaved(fileName); // logs by itself what it cannot mend
    if (QFile::exists(fileName)) {
        const CDescriptor file = TrustedFile::openTrustedLinks(fileName);
        QByteArray data;
        const bool isRead = file.isOpen() && Io::readAll(file, &data);
        const QString error = isRead ? settings.fromByteArray(data) : TrustedFile::readingErrorText(errno);
        if (!isRead)
            log(QStringLiteral("Не удалось открыть файл настроек IP канала для чтения %1. %2")
                    .arg(fileName, error));
        else if (!error.isEmpty())
            log(QStringLiteral("Ошибка чтения настроек IP канала. %1").arg(error));
    }
    CurrentIpSettings::publish(settings);
}

void CIpServer::serverAcceptError(QAbstractSocket::SocketError error)
{
    TRACE_FUNCTION;
    ASSERT_IN_THREAD(thread());
    reportAcceptError(error, tcpServer->acceptErrorString());
}

void CIpServer::reportAcceptError(QAbstractSocket::SocketError error, const QString &text)
{
    log(QStringLiteral("Ошибка приема входящего соединения: %1. %2").arg(QString::number(error), text));
    journal->addRecord(JournalEvent, name(),
                       QStringLiteral("Ошибка приема входящего соединения: %1").arg(text));
}

/// Says that we refused a connection for want of something, a flood of them once a second.
void CIpServer::reportRefusal(int systemErrorCode)
{
    lastRefusal = systemErrorCode;
    if (!refusalPause.isActive())
        reportLastRefusal();
}

void CIpServer::reportLastRefusal()
{
    if (lastRefusal == 0)
        return;
    refusalPause.start();
    const int error = std::exchange(lastRefusal, 0);
    reportAcceptError(QAbstractSocket::SocketResourceError, qt_error_string(error));
}
