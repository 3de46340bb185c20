// ZeroMQ: one pipe of messages over TCP, each message one block.
#include "bench/peers/net.h"
#include "bench/peers/role.h"

#include <cstdio>
#include <stdexcept>
#include <string>
#include <zmq.h>

namespace {

constexpr int waitMs = 2000;

/// A context with one socket; closes both.
class Pipe
{
public:
    explicit Pipe(int type) : context(zmq_ctx_new()), socket(zmq_socket(context, type))
    {
        zmq_setsockopt(socket, ZMQ_LINGER, &waitMs, sizeof waitMs);
        zmq_setsockopt(socket, ZMQ_RCVTIMEO, &waitMs, sizeof waitMs);
        zmq_setsockopt(socket, ZMQ_SNDTIMEO, &waitMs, sizeof waitMs);
    }
    ~Pipe()
    {
        zmq_close(socket);
        zmq_ctx_term(context);
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;

    void *const context;
    void *const socket;
};

// An empty message says that the source has ended.
int sink(const Arguments &arguments)
{
    const Pipe pipe(ZMQ_PULL);
    if (zmq_bind(pipe.socket, "tcp://127.0.0.1:*") != 0)
        throw std::runtime_error("zmq_bind");
    char endpoint[64] = {};
    size_t size = sizeof endpoint;
    zmq_getsockopt(pipe.socket, ZMQ_LAST_ENDPOINT, endpoint, &size);
    const std::string text(endpoint);
    Net::announce(std::stoi(text.substr(text.rfind(':') + 1)));

    std::vector<char> block(std::stoul(arguments[0]));
    Net::SinkCount count;
    for (int got = 0; (got = zmq_recv(pipe.socket, block.data(), block.size(), 0)) > 0;)
        count.add(size_t(got));
    count.report();
    return 0;
}

int source(const Arguments &arguments)
{
    const std::vector<char> block(std::stoul(arguments[1]), 'x');
    const Net::SourceClock clock(arguments[2]);
    {
        const Pipe pipe(ZMQ_PUSH);
        const int waiting = 16; // messages; the default of 1000 is 250 MB
        zmq_setsockopt(pipe.socket, ZMQ_SNDHWM, &waiting, sizeof waiting);
        if (zmq_connect(pipe.socket, ("tcp://127.0.0.1:" + arguments[0]).c_str()) != 0)
            throw std::runtime_error("zmq_connect");
        while (!clock.over() && zmq_send(pipe.socket, block.data(), block.size(), 0) > 0) {
        }
        zmq_send(pipe.socket, "", 0, 0);
    }
    clock.report();
    return 0;
}

const Role zmqSink("sink zeromq", "BLOCK", sink);
const Role zmqSource("source zeromq", "PORT BLOCK MS", source);

} // namespace
