#include "bench/peers/net.h"

#include <cerrno>
#include <cstdio>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace {

sockaddr_in loopback(int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(uint16_t(port));
    return address;
}

sockaddr *plain(sockaddr_in *address)
{
    return static_cast<sockaddr *>(static_cast<void *>(address));
}

} // namespace

int Net::check(int result, const char *what)
{
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return result;
}

int Net::listenLoopback()
{
    const int listener = check(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    sockaddr_in address = loopback(0);
    check(bind(listener, plain(&address), sizeof address), "bind");
    check(listen(listener, 4096), "listen");
    return listener;
}

int Net::portOf(int listener)
{
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    check(getsockname(listener, plain(&address), &size), "getsockname");
    return ntohs(address.sin_port);
}

int Net::callLoopback(int port)
{
    const int socket = check(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    sockaddr_in address = loopback(port);
    if (connect(socket, plain(&address), sizeof address) < 0) {
        const int error = errno;
        close(socket);
        throw std::system_error(error, std::generic_category(), "connect");
    }
    setNoDelay(socket);
    return socket;
}

void Net::setNoDelay(int socket)
{
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void Net::announce(int port)
{
    std::printf("PORT %d\n", port);
    std::fflush(stdout);
}

void Net::waitForInputEnd()
{
    char buffer[256];
    while (read(STDIN_FILENO, buffer, sizeof buffer) > 0) {
    }
}

void Net::exitAtInputEnd()
{
    std::thread([] {
        waitForInputEnd();
        _exit(0);
    }).detach();
}

bool Net::readAll(int socket, char *data, size_t size)
{
    while (size > 0) {
        const ssize_t got = recv(socket, data, size, 0);
        if (got <= 0)
            return false;
        data += got;
        size -= size_t(got);
    }
    return true;
}

bool Net::writeAll(int socket, const char *data, size_t size)
{
    while (size > 0) {
        const ssize_t sent = send(socket, data, size, MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        data += sent;
        size -= size_t(sent);
    }
    return true;
}

void Net::SinkCount::begin()
{
    began = Measure::now();
    cpuBegan = Measure::cpu();
}

void Net::SinkCount::report() const
{
    std::printf("DONE %zu %.6f %.6f\n", total, Measure::now() - began, Measure::cpu() - cpuBegan);
    std::fflush(stdout);
}

Net::SourceClock::SourceClock(const std::string &milliseconds)
    : end(Measure::now() + std::stod(milliseconds) * 1e-3), cpuBegan(Measure::cpu())
{}

void Net::SourceClock::report() const
{
    std::printf("CPU %.6f\n", Measure::cpu() - cpuBegan);
    std::fflush(stdout);
}
