// The server of the observer: answers what the host asks for, offers it connections of every sort, and
// watches in what order and from where it is called.
#pragma once

#include "host/check/observer/cobserverconnection.h"
#include "interfaces/cchannelserver.h"

#include <QElapsedTimer>

#include <memory>
#include <set>
#include <vector>

/// [server thread], which is what it watches.
class CObserverServer final : public CChannelServer
{
public:
    CObserverServer();
    ~CObserverServer() override;

    bool hasFreeChannel() const override;
    bool isHardwareOn() const override;
    bool canCheckOnline() const override;
    void start() override;
    void stop() override;
    void settingsWasChanged() override;
    void connectToAbonent(const QString &abonentName, const QByteArray &abonentsData) override;
    void disconnectFromAbonent(const QString &abonentName, int connectionId) override;
    void keepAliveConnection(int connectionId) override;

    /// What has to be true when the process ends.
    static void judgeLeft();
    static bool areAllStopped();

private:
    enum State
    {
        Created,
        Running,
        Stopping,
        Finished,
    };

    void look(const char *operation, bool isInOrder) const;
    void connectionKnown(const char *operation, int id);
    void useFromManyThreads();
    CObserverConnection *open(FarEnd farEnd, const std::shared_ptr<CObserverLine> &line,
                              const QString &called);
    void turn();
    void answerCalls();
    void turnOfStop();

    State state = Created;
    std::vector<std::unique_ptr<CObserverConnection>> connections; // since the last stop
    std::vector<std::unique_ptr<QThread>> users;                   // of the host's objects
    std::vector<QString> waiting;                                  // calls, until the far ends have played
    std::set<int> known;                                           // numbers that the host may name
    QTimer clock;
    bool isInert = false; // members are missing
    QElapsedTimer sinceStop;
};
