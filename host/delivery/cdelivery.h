// What one `send` delivers, and how far it has got.
//
// The conversation (connection thread) works it off; the command (server thread) watches it. It
// outlives single calls: what has been confirmed is not sent again after a retry. [any thread]
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
        Done,         // everything is confirmed
        SomebodyElse, // another abonent answered
        Refused,      // the other side does not want or cannot store an item
        Unreadable,   // a file of ours
    };

    struct Item
    {
        bool isText = false;
        QString title;   // what to call it to people: the file's name, or "текст"
        QString path;    // of a file
        QByteArray text; // of a text
        qint64 size = 0;
    };

    struct Progress
    {
        State state = UnderWay;
        QString trouble;  // why, when the state is not UnderWay or Done; or why the last call broke off
        int current = -1; // index of the item on its way, or -1
        int confirmed = 0;
        qint64 sent = 0;      // bytes of the current item handed to the channel
        qint64 elapsedMs = 0; // since it began
    };

    /// @return null on success, else what is wrong with the file, in Russian. Before the first call.
    QString addFile(const QString &path);
    void addText(const QString &text);

    /// Constant after the first call.
    const std::vector<Item> &items() const { return list; }

    /// The first item that is not confirmed, now under way; -1 when there is none.
    int takeUp();

    void addSent(qint64 bytes);
    void confirm();
    void fail(State state, const QString &trouble);

    /// A call is over or begins: nothing is on its way. A @a trouble that is null keeps the old one.
    void setDown(const QString &trouble);

    Progress progress() const;

private:
    std::vector<Item> list;
    mutable std::mutex mutex; // guards the two below
    Progress now;
    std::chrono::steady_clock::time_point begun;
};
