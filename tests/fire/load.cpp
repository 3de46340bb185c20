#include "tests/fire/load.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

Load::Load(Reactor &inReactor, LoadPlan how)
    : reactor(inReactor), plan(std::move(how)), total(plan.total > 0 ? plan.total : plan.slots_),
      clients(std::size_t(plan.slots_))
{
    reactor.add(this);
    tick(Reactor::now());
}

Load::~Load()
{
    closeAll();
    reactor.remove(this);
}

void Load::closeAll()
{
    begun = total;
    for (Client &client : clients) {
        if (client.descriptor >= 0)
            end(client, false);
    }
}

double Load::latency(double part)
{
    if (latencies.empty())
        return -1;
    std::sort(latencies.begin(), latencies.end());
    return latencies[std::size_t(double(latencies.size() - 1) * part)] / 1000.0;
}

void Load::tick(qint64 now)
{
    for (Client &client : clients) {
        if (now < client.next)
            continue;
        if (client.descriptor < 0) {
            if (begun < total)
                begin(client);
        } else if (client.isConnected && plan.dripMs > 0 && client.gone < client.out.size()) {
            client.next = now + plan.dripMs * 1000;
            if (!send(client))
                end(client, true);
        } else if (client.isConnected && client.toOpen == 0 && client.matched < 0 && client.out.isEmpty()) {
            ask(client, now);
        }
    }
}

void Load::begin(Client &client)
{
    constexpr int smallBuffer = 4096; // who does not read is to be noticed early
    client = Client();
    client.number = begun++;
    client.descriptor = connectTo(plan.port, plan.reads ? 0 : smallBuffer);
    if (plan.opening) {
        client.out = plan.opening(client.number);
        client.toOpen = plan.openingAnswer;
    }
    const auto index = std::size_t(client.descriptor);
    if (index >= byDescriptor.size())
        byDescriptor.resize(index + 1);
    byDescriptor[index] = &client;
    reactor.watch(client.descriptor, EPOLLIN | EPOLLOUT | EPOLLET, this);
}

void Load::ready(int descriptor)
{
    Client &client = *byDescriptor[std::size_t(descriptor)];
    if (!client.isConnected) {
        int error = 0;
        socklen_t errorSize = sizeof error;
        ::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &errorSize);
        sockaddr_in other = {};
        socklen_t size = sizeof other;
        if (error == 0 && ::getpeername(descriptor, reinterpret_cast<sockaddr *>(&other), &size) != 0)
            return; // not yet
        if (error != 0)
            return end(client, true);
        client.isConnected = true;
        client.begun = Reactor::now();
        ++connected;
        // Spread over the period, as clients that do not know of each other are.
        const qint64 share = qint64(plan.periodMs) * 1000 * (client.number % plan.slots_) / plan.slots_;
        client.next = Reactor::now() + share;
    }
    const bool sends = plan.dripMs == 0;
    if ((sends && !send(client)) || (plan.reads && !receive(client)))
        end(client, true);
}

/// @return false when the connection is over
bool Load::send(Client &client)
{
    while (client.gone < client.out.size()) {
        const int rest = plan.dripMs > 0 ? 1 : client.out.size() - client.gone;
        const ssize_t count =
            ::send(client.descriptor, client.out.constData() + client.gone, std::size_t(rest), MSG_NOSIGNAL);
        if (count < 0)
            return errno == EAGAIN;
        client.gone += int(count);
        if (!plan.reads) {
            pushed += count;
            if (client.gone == client.out.size() && pushed < plan.most)
                client.gone = 0;
        }
        if (plan.dripMs > 0)
            return true;
    }
    if (client.matched < 0 && client.gone == client.out.size())
        client.out.clear(); // the opening; a request stays, to be compared
    return true;
}

bool Load::receive(Client &client)
{
    char bytes[65536];
    for (;;) {
        const ssize_t count = ::recv(client.descriptor, bytes, sizeof bytes, 0);
        if (count <= 0)
            return count < 0 && errno == EAGAIN;
        take(client, bytes, int(count));
        if (client.descriptor < 0)
            return true; // that was all we wanted
    }
}

void Load::take(Client &client, const char *bytes, int size)
{
    const int opening = std::min(client.toOpen, size);
    client.toOpen -= opening;
    if (opening > 0 && client.toOpen == 0) {
        ++opened;
        if (plan.rounds == 0)
            return end(client, false);
    }
    if (size == opening)
        return;
    const QByteArray &expected = plan.answer.isEmpty() ? client.out : plan.answer;
    const int count = size - opening;
    if (client.matched < 0 || count > expected.size() - client.matched ||
        std::memcmp(expected.constData() + client.matched, bytes + opening, std::size_t(count)) != 0) {
        wrong += count;
        return;
    }
    client.matched += count;
    if (client.matched < expected.size())
        return;
    const qint64 now = Reactor::now();
    latencies.push_back(int(now - client.sent));
    ++rounds;
    client.matched = -1;
    client.out.clear();
    client.next = std::max(now, client.sent + plan.periodMs * 1000);
    if (++client.round >= plan.rounds)
        end(client, false);
}

void Load::ask(Client &client, qint64 now)
{
    if (plan.rounds == 0 && plan.openingAnswer == 0)
        return end(client, false);
    if (plan.request.isEmpty())
        return;
    client.out = plan.request;
    client.gone = 0;
    const int stamp[] = {client.number, client.round};
    if (plan.answer.isEmpty() && plan.request.size() >= int(sizeof stamp))
        std::memcpy(client.out.data(), stamp, sizeof stamp);
    if (plan.reads)
        client.matched = 0;
    client.sent = now;
    if (!send(client))
        end(client, true);
}

void Load::end(Client &client, bool byOther)
{
    const qint64 now = Reactor::now();
    if (plan.resetEvery > 0 && client.number % plan.resetEvery == 0) {
        const linger reset = {1, 0};
        ::setsockopt(client.descriptor, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    }
    reactor.close(client.descriptor);
    client.descriptor = -1;
    client.next = now + plan.pauseMs * 1000;
    if (!client.isConnected) {
        ++failed;
        return;
    }
    ++closed;
    if (byOther) {
        ++dropped;
        lives.push_back(int((now - client.begun) / 1000));
    }
}
