// Raw blocking sockets: the limit of what one connection can do, and std::thread for each of many.
#include "bench/peers/net.h"
#include "bench/peers/role.h"

#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

int sink(const Arguments &arguments)
{
    const int listener = Net::listenLoopback();
    Net::announce(Net::portOf(listener));
    const int socket = Net::check(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), "accept4");
    std::vector<char> block(std::stoul(arguments[0]));
    Net::SinkCount count;
    for (ssize_t got = 0; (got = recv(socket, block.data(), block.size(), 0)) > 0;)
        count.add(size_t(got));
    count.report();
    return 0;
}

int source(const Arguments &arguments)
{
    const std::vector<char> block(std::stoul(arguments[1]), 'x');
    const int socket = Net::callLoopback(std::stoi(arguments[0]));
    const Net::SourceClock clock(arguments[2]);
    while (!clock.over() && Net::writeAll(socket, block.data(), block.size())) {
    }
    close(socket);
    clock.report();
    return 0;
}

void echoOn(int socket)
{
    char block[16384];
    for (ssize_t got = 0; (got = recv(socket, block, sizeof block, 0)) > 0;) {
        if (!Net::writeAll(socket, block, size_t(got)))
            break;
    }
    close(socket);
}

void helloOn(int socket)
{
    char block[Net::helloSize];
    if (Net::readAll(socket, block, sizeof block))
        Net::writeAll(socket, block, sizeof block);
    close(socket);
}

template <void (*serve)(int)>
int threadEach(const Arguments &)
{
    Net::exitAtInputEnd();
    const int listener = Net::listenLoopback();
    Net::announce(Net::portOf(listener));
    for (;;) {
        const int socket = Net::check(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), "accept4");
        Net::setNoDelay(socket);
        std::thread(serve, socket).detach();
    }
}

const Role rawSink("sink raw", "BLOCK", sink);
const Role rawSource("source raw", "PORT BLOCK MS", source);
const Role threadEcho("echo thread", "", threadEach<echoOn>);
const Role threadHello("hello thread", "", threadEach<helloOn>);

} // namespace
