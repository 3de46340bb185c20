#include "tests/fire/relay.h"

#include <algorithm>
#include <cerrno>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

Relay::Relay(Reactor &inReactor, int targetPort)
    : target(targetPort), reactor(inReactor),
      listener(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ::bind(listener, reinterpret_cast<sockaddr *>(&address), size);
    ::listen(listener, 1000);
    ::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size);
    ownPort = ntohs(address.sin_port);
    reactor.watch(listener, EPOLLIN, this);
    reactor.add(this);
}

Relay::~Relay()
{
    cut(false);
    reactor.close(listener);
    reactor.remove(this);
}

void Relay::cut(bool byReset)
{
    for (const auto &pair : pairs)
        close(*pair, byReset);
    pairs.clear();
}

void Relay::ready(int descriptor)
{
    if (descriptor == listener) {
        const int accepted = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (accepted < 0)
            return;
        pairs.push_back(std::make_unique<Pair>());
        Pair &pair = *pairs.back();
        pair.ends[0] = accepted;
        pair.ends[1] = connectTo(target);
        for (const int end : pair.ends)
            reactor.watch(end, EPOLLIN | EPOLLET, this);
        return;
    }
    for (const auto &pair : pairs) {
        for (int i = 0; i < 2; ++i)
            pair->isReadable[i] |= pair->ends[i] == descriptor;
    }
}

void Relay::tick(qint64 now)
{
    const auto isOver = [&](const std::unique_ptr<Pair> &pair) {
        if (isStalled || (move(*pair, 0, now) && move(*pair, 1, now)))
            return false;
        close(*pair, false);
        return true;
    };
    pairs.erase(std::remove_if(pairs.begin(), pairs.end(), isOver), pairs.end());
}

/// @return false when the pair is of no more use
bool Relay::move(Pair &pair, int from, qint64 now)
{
    constexpr std::size_t mostQueued = 64;
    auto &queue = pair.queued[from];
    while (pair.isReadable[from] && queue.size() < mostQueued) {
        char bytes[16384];
        const ssize_t count = ::recv(pair.ends[from], bytes, sizeof bytes, 0);
        if (count > 0) {
            queue.push_back({now + delayMs * 1000, std::string(bytes, std::size_t(count))});
            continue;
        }
        pair.isReadable[from] = false;
        pair.isOver[from] = count == 0 || errno != EAGAIN;
    }
    while (!queue.empty() && queue.front().due <= now) {
        std::string &bytes = queue.front().bytes;
        const ssize_t count = ::send(pair.ends[1 - from], bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0)
            return errno == EAGAIN;
        bytes.erase(0, std::size_t(count));
        if (!bytes.empty())
            return true;
        queue.pop_front();
    }
    return !pair.isOver[from] || !queue.empty();
}

void Relay::close(Pair &pair, bool byReset)
{
    const linger reset = {byReset ? 1 : 0, 0};
    for (const int end : pair.ends) {
        ::setsockopt(end, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        reactor.close(end);
    }
}
