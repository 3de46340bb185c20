#include "tests/fire/reactor.h"

#include <algorithm>
#include <ctime>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

Reactor::Reactor() : epoll(::epoll_create1(EPOLL_CLOEXEC)) {}

Reactor::~Reactor()
{
    ::close(epoll);
}

void Reactor::remove(Part *part)
{
    parts.erase(std::remove(parts.begin(), parts.end(), part), parts.end());
}

void Reactor::watch(int descriptor, quint32 events, Part *part)
{
    const auto index = std::size_t(descriptor);
    if (index >= owners.size())
        owners.resize(index + 1);
    epoll_event event = {};
    event.events = events;
    event.data.fd = descriptor;
    ::epoll_ctl(epoll, owners[index] ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, descriptor, &event);
    owners[index] = part;
}

void Reactor::close(int descriptor)
{
    owners[std::size_t(descriptor)] = nullptr; // events of this round that are still to come go nowhere
    ::close(descriptor);
}

bool Reactor::run(int ms, const std::function<bool()> &until)
{
    const qint64 end = now() + qint64(ms) * 1000;
    do {
        if (until && until())
            return true;
        epoll_event events[256];
        const int count = ::epoll_wait(epoll, events, 256, 1);
        for (int i = 0; i < count; ++i) {
            if (Part *part = owners[std::size_t(events[i].data.fd)])
                part->ready(events[i].data.fd);
        }
        for (std::size_t i = 0; i < parts.size(); ++i)
            parts[i]->tick(now());
    } while (now() < end);
    return until && until();
}

qint64 Reactor::now()
{
    timespec time = {};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return qint64(time.tv_sec) * 1000000 + time.tv_nsec / 1000;
}

int connectTo(int port, int receiveBuffer)
{
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (receiveBuffer > 0)
        ::setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(quint16(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::connect(descriptor, reinterpret_cast<sockaddr *>(&address), sizeof address);
    return descriptor;
}
