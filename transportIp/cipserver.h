// The face of the IP channel server. Two sources: cipserver.cpp tells its life (start, listen and
// retry, settings, queries), cipserver_routing.cpp how work reaches the workers and how they end.
//
//   created --start()--> listening <--tryListen()-- retrying    retrying: every 30 s, for ever
//                            |  stop()                          stopping: workers get 9 s
//                            v
//                        stopping --finished()--> stopped --start()--> listening
#pragma once

#include "interfaces/cchannelserver.h"
#include "transportIp/cipchannel.h"
#include "transportIp/cipthread.h"
#include "transportIp/ctcpserver.h"

#include <QAbstractSocket>
#include <QList>
#include <QTimer>

#include <atomic>
#include <memory>

/// The IP implementation of a channel server. Everything but its signals is [server thread].
/// It may be moved to another thread while it does not run: all it has then moves along.
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
    void reportRefusal(int systemErrorCode);
    void reportLastRefusal();
    CIpThread *takeWorker();
    void waitForWorkers() const;
    void terminateStragglers();
    void releaseWorkers();
    QList<CIpThread *> runningWorkers() const;

    CTcpServer *tcpServer = nullptr; // made by the first start, kept across stops
    QList<CIpThread *> threads;      // owned; all workers since the last stop, running or not

    QTimer listenRetry;
    QTimer refusalPause; // runs for a second after a refusal was reported
    int lastRefusal = 0; // errno of the last one since then, 0 if there was none

    // No worker before this index is free. The workers' threads lower it, also after a stop, when a
    // worker left behind ends at last: so it is shared.
    std::shared_ptr<std::atomic<int>> firstFree;
};
