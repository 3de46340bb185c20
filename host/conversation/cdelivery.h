// What one `send` delivers, and how far it has got.
//
// The conversation (connection thread) sends its items; the command (server thread) watches it. It
// outlives single calls: what has been confirmed is not sent again after a retry. An item that cannot
// be delivered keeps its reason and holds up none behind it. [any thread]
#pragma once

#include <QByteArray>
#include <QString>

#include <chrono>
#include <mutex>
#include <vector>

class CDelivery
{
public:
    enum State
    {
        UnderWay,
        Done,         // every item is confirmed or has failed
        SomebodyElse, // another abonent answered
    };

    enum Outcome
    {
        Waiting,
        Confirmed, // the other side has stored it
        Failed,    // refused, unreadable or changed
    };

    struct Item
    {
        bool isText = false;
        QString title;   // what to call it to people: the file's name, or "текст"
        QString path;    // of a file
        QByteArray text; // of a text
        qint64 size = 0;
        Outcome outcome = Waiting; // this and the next guarded by the mutex
        QString failure;           // why it has failed
    };

    struct Progress
    {
        State state = UnderWay;
        QString trouble;      // why the last call ended before everything was done, or null
        int current = -1;     // index of the item on its way, or -1
        qint64 sent = 0;      // bytes of the current item handed to the channel
        qint64 elapsedMs = 0; // since it began
    };

    /// Adds an item; one that cannot be sent has failed at once. Before the first call.
    void addFile(const QString &path);
    void addText(const QString &text);

    /// Constant after the first call, but for outcomes and failures.
    const std::vector<Item> &items() const { return list; }

    /// The first item that waits, now under way; -1 when there is none.
    int beginNext();

    /// What becomes of the item under way.
    void addSent(qint64 bytes);
    void confirm();
    void failItem(const QString &reason);

    /// Another abonent has answered: nothing can be delivered.
    void refuseAbonent(const QString &trouble);

    /// A call has ended: nothing is on its way. A @a trouble that is null keeps the old one.
    void callEnded(const QString &trouble);

    Progress progress() const;

    /// Outcome and failure of an item.
    Outcome outcomeOf(int item, QString *failure = nullptr) const;

    bool hasAny(Outcome outcome) const;

private:
    void end(Outcome outcome, const QString &failure);
    int firstWaiting() const;

    std::vector<Item> list;
    mutable std::mutex mutex; // guards the two below and the outcomes
    Progress now;
    std::chrono::steady_clock::time_point begun;
};
