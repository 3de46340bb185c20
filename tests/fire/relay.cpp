#include "tests/fire/relay.h"
#include "tests/fire/eventloop.h"

#include <algorithm>

#include <sys/socket.h>

void endNow(QTcpSocket *socket, bool byReset)
{
    const linger reset = {byReset, 0};
    ::setsockopt(int(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    socket->abort();
}

Relay::Relay(int targetPort) : target(targetPort)
{
    listen(QHostAddress::LocalHost);
    connect(&tick, &QTimer::timeout, this, &Relay::move);
    tick.start(1);
}

void Relay::cut(bool byReset)
{
    for (const auto &pair : pairs) {
        for (End &end : pair->ends)
            endNow(&end.socket, byReset);
    }
    pairs.clear();
}

void Relay::incomingConnection(qintptr descriptor)
{
    pairs.push_back(std::make_unique<Pair>());
    End(&ends)[2] = pairs.back()->ends;
    ends[0].socket.setSocketDescriptor(descriptor);
    ends[1].socket.connectToHost(QHostAddress::LocalHost, quint16(target));
    for (End &end : ends)
        end.socket.setReadBufferSize(65536);
}

void Relay::move()
{
    constexpr std::size_t mostQueued = 64;
    const qint64 now = nowUs();
    const auto isOver = [&](const std::unique_ptr<Pair> &pair) {
        for (const int i : {0, 1}) {
            auto &[socket, said] = pair->ends[i];
            QTcpSocket &other = pair->ends[1 - i].socket;
            if (socket.bytesAvailable() > 0 && said.size() < mostQueued)
                said.emplace_back(now + delayMs * 1000, socket.read(16384));
            for (; !said.empty() && said.front().first <= now && other.bytesToWrite() < 65536;
                 said.pop_front())
                other.write(said.front().second);
            if (socket.state() == QTcpSocket::UnconnectedState && said.empty())
                other.disconnectFromHost();
        }
        return pair->ends[0].socket.state() == QTcpSocket::UnconnectedState &&
               pair->ends[1].socket.state() == QTcpSocket::UnconnectedState;
    };
    if (!isStalled)
        pairs.erase(std::remove_if(pairs.begin(), pairs.end(), isOver), pairs.end());
}
