// Gets one delivery to an abonent: calls, watches, calls again, and says how it ended.
#pragma once

#include "host/conversation/cdelivery.h"
#include "host/delivery/calltarget.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

class CConsole;
class CChannelPlugin;
class CChannelServer;

/// Lives in the server thread.
class CDeliveryCall : public QObject
{
    Q_OBJECT

public:
    /// How it ended.
    enum End
    {
        Delivered,
        NoAnswer,
        SomebodyElse, // another abonent has answered
        NotDelivered, // not everything has been confirmed
        Cancelled,
    };

    /// All outlive the object, but for the server, which is not touched any more after over().
    CDeliveryCall(const CallTarget &whom, CDelivery &what, CChannelServer &through,
                  const CChannelPlugin &ofKind, CConsole &shownOn);

    /// Places the first call. over() follows.
    void begin();

    /// Gives the delivery up, whatever is under way. over() follows at once.
    void cancel();

Q_SIGNALS:
    /// The delivery is done or given up.
    void over(CDeliveryCall::End how);

private Q_SLOTS:
    void connected(const QString &abonentName, int connectionId);
    void notConnected(const QString &abonentName);
    void disconnected(const QString &abonentName, int connectionId, bool wasUseful);

private:
    void call();
    void callEnded();
    void retryOrEnd(End how, const QString &trouble);
    void end(End how, const QString &text);
    void endDone();
    void showOutcomes();
    void showProgress();
    QString summary() const;

    const CallTarget target;
    CDelivery &delivery;
    CChannelServer &server;
    const CChannelPlugin &plugin;
    CConsole &console;

    QTimer callTimeout; // for a call that the channel never reports on
    QTimer progressTimer;
    QTimer keepTimer;       // the connection is to stay while we wait for the other side
    QElapsedTimer clock;    // of the whole delivery
    int connection = -1;    // its identifier, while there is one
    bool isCalling = false; // between a call and its end
    bool isOver = false;    // and nothing may follow
    bool wasConnected = false;
    int retriesLeft;
    int retryDelay = 0; // seconds, stepped by the plug-in
    int shownItem = -1; // for plain output: what has been shown of which item
    int shownTenth = 0;
};
