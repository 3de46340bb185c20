// The face of the IP channel server. Two sources: cipserver.cpp tells its life (start, listen and
// retry, settings, queries), cipserver_routing.cpp how work reaches the workers and how they end.
//
//   created --start()--> listening <--tryListen()-- retrying    retrying: every 30 s, for ever
//                            |  stop()                          stopping: workers get 9 s
//                            v
//                        stopping --finished()--> stopped --start()--> listening
#pragma once

#include "interfaces/cchannelserver.h"
#include "transportIp/cipthread.h"
#include "transportIp/ctcpserver.h"

#include <QAbstractSocket>
#include <QList>
#include <QTimer>

#include <atomic>
#include <functional>
#include <memory>

/// The IP implementation of a channel server. Everything but its signals is [server thread].
class CIpServer : public CChannelServer
{
    Q_OBJECT

public:
    CIpServer();

    /// Deletes the listener. Workers are ended by the stop sequence only.
    ~CIpServer() override;

    /// @return "IP-канал", the source of the server's journal records
    static QString name();

    bool hasFreeChannel() const override;
    bool isHardwareOn() const override;
    bool canCheckOnline() const override;

    void start() override;
    void stop() override;

public Q_SLOTS:
    void settingsWasChanged() override;
    void connectToAbonent(const QString &abonentName, const QByteArray &abonentsData) override;
    void disconnectFromAbonent(const QString &abonentName, int connectionId) override;
    void keepAliveConnection(int connectionId) override;

private Q_SLOTS:
    void tryListen();
    void inputConnection();
    void internalStop();
    void serverAcceptError(QAbstractSocket::SocketError error);

private:
    void loadSettings();
    void reportAcceptError(QAbstractSocket::SocketError error, const QString &text);
    CIpThread *takeWorker();
    void waitForWorkers(class CStopRequests &requests) const;
    void terminateStragglers(const QList<CIpThread *> &stillAsked);
    void releaseWorkers(const QList<CIpThread *> &stillAsked);
    QList<CIpThread *> runningWorkers() const;

    CTcpServer *tcpServer = nullptr; // owned; made by the first start, kept across stops
    QList<CIpThread *> threads;      // owned; all workers since the last stop, running or not

    QTimer listenRetry;
    QTimer acceptReportPause;         // runs for a second after an accept error was reported
    std::function<void()> heldReport; // the last one that came meanwhile; said when the second is over

    // No worker before this index is free. The workers' threads lower it, also after a stop, when a
    // worker left behind ends at last: so it is shared.
    std::shared_ptr<std::atomic<int>> firstFree;
};
