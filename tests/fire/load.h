// Any number of clients in one thread. What they do is data: see LoadPlan.
#pragma once

#include "tests/fire/reactor.h"

#include <QByteArray>

#include <limits>

struct LoadPlan
{
    int port = 0;
    int slots_ = 1;  // connections side by side
    int total = 0;   // connections in all, one after another in each slot; 0: one per slot
    int pauseMs = 0; // before a slot's next connection

    std::function<QByteArray(int)> opening; // what connection n says first
    int openingAnswer = 0;                  // bytes that come back for it
    int dripMs = 0;                         // between two bytes of the opening; 0: sent at once

    QByteArray request; // said again and again; carries connection and round when it is to be echoed
    QByteArray answer;  // what comes back; empty: the request itself
    int periodMs = 0;   // from one request to the next
    int rounds = std::numeric_limits<int>::max(); // requests, then the connection is closed

    bool reads = true;  // one that does not read does not wait for answers either
    qint64 most = 0;    // bytes that such a one sends
    int resetEvery = 0; // each n-th connection ends by a reset
};

class Load final : private Reactor::Part
{
public:
    Load(Reactor &inReactor, LoadPlan how);
    ~Load(); // closes all

    Load(const Load &) = delete;
    Load &operator=(const Load &) = delete;

    void closeAll();
    int open() const { return connected - closed; }
    int over() const { return failed + closed; }

    /// @param part 0.99 for the 99th percentile. @return milliseconds
    double latency(double part);

    int failed = 0;             // connections that did not come about
    int connected = 0;          // those that did
    int opened = 0;             // answered to the opening
    int closed = 0;             // over, by whom ever
    int dropped = 0;            // ended by the other side
    int rounds = 0;             // requests answered
    int wrong = 0;              // bytes that were not the answer
    qint64 pushed = 0;          // bytes sent by those that do not read
    std::vector<int> latencies; // microseconds
    std::vector<int> lives;     // milliseconds, of those dropped

private:
    struct Client
    {
        int descriptor = -1;
        int number = 0;
        bool isConnected = false;
        qint64 begun = 0;
        qint64 next = 0; // when to act again
        qint64 sent = 0; // when the request went
        QByteArray out;
        int gone = 0;     // bytes of it
        int toOpen = 0;   // bytes of the opening's answer that are still to come
        int matched = -1; // bytes of the answer so far; -1: none awaited
        int round = 0;
    };

    void ready(int descriptor) override;
    void tick(qint64 now) override;
    void begin(Client &client);
    bool send(Client &client);
    bool receive(Client &client);
    void take(Client &client, const char *bytes, int size);
    void ask(Client &client, qint64 now);
    void end(Client &client, bool byOther);

    Reactor &reactor;
    const LoadPlan plan;
    const int total;
    int begun = 0;
    std::vector<Client> clients;
    std::vector<Client *> byDescriptor;
};
