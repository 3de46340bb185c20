// A bad line between a client and a server: it delays, stalls, cuts and resets what passes through it.
#pragma once

#include "tests/fire/reactor.h"

#include <deque>
#include <memory>
#include <string>

class Relay final : private Reactor::Part
{
public:
    Relay(Reactor &inReactor, int targetPort);
    ~Relay();

    Relay(const Relay &) = delete;
    Relay &operator=(const Relay &) = delete;

    int port() const { return ownPort; }
    int passing() const { return int(pairs.size()); }

    /// Ends all that passes now: both sides see a close, or a reset.
    void cut(bool byReset);

    // For all that passes from now on.
    int target;
    int delayMs = 0;
    bool isStalled = false;

private:
    struct Piece
    {
        qint64 due;
        std::string bytes;
    };
    struct Pair
    {
        int ends[2];
        bool isReadable[2] = {false, false};
        bool isOver[2] = {false, false}; // this end will say nothing more
        std::deque<Piece> queued[2];     // what this end has said
    };

    void ready(int descriptor) override;
    void tick(qint64 now) override;
    bool move(Pair &pair, int from, qint64 now);
    void close(Pair &pair, bool byReset);

    Reactor &reactor;
    int listener;
    int ownPort = 0;
    std::vector<std::unique_ptr<Pair>> pairs;
};
