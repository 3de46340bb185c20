// Gets what is in the outbox to the abonents: calls them, and calls again after a growing delay, for ever.
//
//   waiting --new entry, end of the delay--> calling --connected--> talking --all stored--> nothing to do
//      ^                                        |                       |
//      +------- no answer: a longer delay ------+---- broken off -------+
//
// The conversations do the sending, on whatever connection to the abonent there is; when it has called us,
// no call of ours is needed.
#pragma once

#include "host/conversation/clatewatcher.h"
#include "host/conversation/coutbox.h"
#include "host/conversation/csendqueue.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <functional>
#include <map>
#include <memory>

class CChannelPlugin;
class CChannelServer;
class CContacts;
class CJournal;

/// Lives in the server thread.
class CPostOffice : public QObject
{
    Q_OBJECT

public:
    /// All outlive the office; the server is started, the process holds the transport's lock.
    struct Around
    {
        CChannelServer *server = nullptr;
        const CChannelPlugin *plugin = nullptr;
        CContacts *contacts = nullptr;
        CJournal *journal = nullptr;
        CSendQueues *queues = nullptr;
        int level = 0;
        /// Why the last call of an abonent came to nothing, as the channel has recorded it; may be empty.
        std::function<QString(const QString &abonent)> takeReason;
        QString only;  // filtered name of the one abonent to be served; empty: all
        QString fresh; // number of an entry that nobody has tried to deliver yet
    };

    explicit CPostOffice(const Around &with);

    /// Looks through the outbox and begins.
    void begin();

    /// Something has happened in the queue of an abonent.
    void queueChanged(const QString &filteredName);

    /// Calls placed so far.
    qint64 placedCalls() const { return calls; }

private Q_SLOTS:
    void connected(const QString &abonentName, int connectionId);
    void notConnected(const QString &abonentName);
    void disconnected(const QString &abonentName, int connectionId, bool wasUseful);

private:
    /// The way to one abonent.
    struct Route
    {
        QString name;
        std::shared_ptr<CSendQueue> queue;
        QString target; // address and port of the last call
        QTimer retry;   // until the next call
        QTimer noWord;  // a call of which nothing is heard at all
        int delay = 0;  // seconds, stepped by the plug-in
        int connection = -1;
        bool isCalling = false; // between a call and its end
        bool wasConnected = false;
    };

    void lookAtTasks();
    void take(const QString &number, bool isNow, bool isOld);
    void withdraw(const QString &number);
    Route &route(const QString &name);
    void consider(Route &way);
    void call(Route &way);
    void callEnded(Route &way, bool wasUseful);
    QString noAnswer(const Route &way) const;
    void showLive();

    const Around around;
    std::map<QString, std::unique_ptr<Route>> routes; // by filtered name
    CLateWatcher watcher;                             // of the tasks
    QTimer sweep;                                     // for what the watcher does not tell
    QTimer live;
    qint64 calls = 0;
};
