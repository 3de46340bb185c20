// One connection that the observer offers to a host, in a thread of its own as in any channel.
#pragma once

#include "host/check/cstopwatch.h"
#include "host/check/observer/cobserverchannel.h"
#include "interfaces/cabstractprotocol.h"
#include "interfaces/cchannelserver.h"

#include <QMutex>
#include <QThread>
#include <QTimer>

#include <atomic>

/// What the far end does.
enum class FarEnd
{
    Host,    // it is another connection of the same host
    Silent,  // nothing, until the host stops
    Closing, // ends the connection after a moment
    Flood,   // sends bytes of no meaning in pieces of every size, reads everything, then ends
    Deaf,    // sends the same, reads nothing, then ends
};

/// The object lives in the server's thread, run() in its own.
class CObserverConnection final : public QThread
{
public:
    /// @param called whom the host has called; null for an answered connection
    CObserverConnection(CChannelServer *of, int number, FarEnd playing, std::shared_ptr<CObserverLine> both,
                        QString called);

    /// Asks the protocol for an end. [server thread]
    void stop();

    /// @return whether the host knows the connection as this abonent's
    bool isOf(const QString &name) const;

    void keepAlive();

    const int id;
    const FarEnd farEnd;

private:
    void run() override;
    CAbstractProtocol *makeProtocol(int handle);
    bool begin(int handle);
    void watchProtocol();
    void play();
    void expectEnd(const char *rule, const QString &text);
    void reportEnd();
    void end();

    CChannelServer *const server;
    const std::shared_ptr<CObserverLine> line;
    const QString calledName;
    const QString label;
    QString abonentName; // the server thread's own

    // The connection thread's own.
    bool isChannelGone = false;
    bool isBound = false;
    bool isDeleting = false;
    bool isAtEnd = false; // the script is over
    int turn = 0;         // of the script
    QTimer *script = nullptr;
    std::unique_ptr<CStopwatch> sinceTurn;

    std::atomic<int> finishedCount{0};
    std::atomic<bool> isStopAsked{false};
    std::atomic<bool> isStopWaiting{false}; // for the protocol to begin
    QMutex mutex;                           // guards the protocol between this thread and the server's
    CAbstractProtocol *protocol = nullptr;
};
