// Gets one delivery to an abonent: calls, watches, calls again, and says how it ended.
#pragma once

#include "host/delivery/calltarget.h"
#include "host/delivery/cdelivery.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

class CConsole;
class CMessenger;

/// Lives in the server thread.
class CDeliveryCall : public QObject
{
    Q_OBJECT

public:
    /// All outlive the object; the messenger is open.
    CDeliveryCall(const CallTarget &whom, CDelivery &what, CMessenger &through, CConsole &shownOn);

    /// Places the first call. over() follows.
    void begin();

    /// Gives the delivery up, whatever is under way. over() follows at once.
    void cancel(int exitCode);

Q_SIGNALS:
    /// The delivery is done or given up.
    void over(int exitCode);

private Q_SLOTS:
    void connected(const QString &abonentName, int connectionId);
    void notConnected(const QString &abonentName);
    void disconnected(const QString &abonentName, int connectionId, bool wasUseful);

private:
    void call();
    void callEnded();
    void retryOrEnd(int exitCode, const QString &trouble);
    void end(int exitCode, const QString &text);
    void endDone();
    void showOutcomes();
    void showProgress();
    QString summary() const;

    const CallTarget target;
    CDelivery &delivery;
    CMessenger &messenger;
    CConsole &console;

    QTimer noWord; // a call of which nothing is heard at all
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
