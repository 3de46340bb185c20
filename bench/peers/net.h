// Sockets without ceremony: failures throw std::system_error and end the peer.
#pragma once

#include "bench/support/measure.h"

#include <cstddef>
#include <string>

namespace Net {

constexpr size_t helloSize = 32; // bytes of a question and of its answer
constexpr size_t echoSize = 64;  // bytes of a round trip

/// Throws when @a result is negative, with errno and @a what; else gives it back.
int check(int result, const char *what);

/// A listener on a free port of the loopback address.
int listenLoopback();
int portOf(int listener);

/// A connection to the loopback address, without delay of small packets.
int callLoopback(int port);
void setNoDelay(int socket);

/// Prints "PORT n", the sign for whoever started the peer.
void announce(int port);

/// Returns when the standard input has ended.
void waitForInputEnd();

/// Ends the process, quickly, when the standard input ends.
void exitAtInputEnd();

/// @return whether all bytes came; false at the end of the stream
bool readAll(int socket, char *data, size_t size);
bool writeAll(int socket, const char *data, size_t size);

/// Counts what a sink receives, from the first byte on.
class SinkCount
{
public:
    void add(size_t bytes)
    {
        if (total == 0)
            begin();
        total += bytes;
    }

    /// Prints "DONE bytes seconds cpu_seconds".
    void report() const;

private:
    void begin();

    size_t total = 0;
    double began = 0;
    double cpuBegan = 0;
};

/// The clock of a source: when to stop, and what it has cost.
class SourceClock
{
public:
    explicit SourceClock(const std::string &milliseconds);
    bool over() const { return Measure::now() >= end; }

    /// Prints "CPU cpu_seconds".
    void report() const;

private:
    double end;
    double cpuBegan;
};

} // namespace Net
