// Any number of clients in one thread. What they do is data: see LoadPlan.
#pragma once

#include <QHostAddress>
#include <QTcpSocket>
#include <QTimer>

#include <functional>
#include <limits>
#include <memory>
#include <vector>

struct LoadPlan
{
    int port = 0;    // of the first connections
    int slots_ = 1;  // connections side by side
    int total = 0;   // connections in all, one after another in each slot; 0: one per slot
    int pauseMs = 0; // before a slot's next connection

    std::function<QByteArray(int)> opening; // what connection n says first
    int openingAnswer = 0;                  // bytes that come back for it
    int dripMs = 0;                         // between two bytes of the opening; 0: sent at once

    QByteArray request; // said again and again, with connection and round in it, and echoed
    int periodMs = 0;   // from one request to the next
    int rounds = std::numeric_limits<int>::max(); // requests, then the connection is closed

    int resetEvery = 0; // each n-th connection ends by a reset
};

class Load final
{
public:
    explicit Load(LoadPlan how);
    ~Load(); // closes all

    void closeAll();

    /// Ends all connections that are there now, by a close or a reset; their slots go on.
    void cut(bool byReset);

    int open() const { return connected - closed; }
    int over() const { return failed + closed; }

    int port;               // of connections from now on
    int failed = 0;         // connections that did not come about
    int connected = 0;      // those that did
    int closed = 0;         // over, by whom ever
    int dropped = 0;        // ended by the other side
    int opened = 0;         // openings answered
    int rounds = 0;         // requests answered
    int wrong = 0;          // bytes that were not the answer
    std::vector<int> lives; // milliseconds, of those dropped

private:
    class Client;

    const LoadPlan plan;
    const int total;
    int begun = 0;
    std::vector<std::unique_ptr<Client>> clients;
};
