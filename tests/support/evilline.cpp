#include "tests/support/evilline.h"

#include <algorithm>

namespace {

constexpr int delayMs = 100; // each way
constexpr int stallMs = 3000;
constexpr int stallEveryMs = 25000;
constexpr int mostUnderWay = 512 * 1024;

bool isOver(const QTcpSocket &socket)
{
    return socket.state() == QAbstractSocket::UnconnectedState;
}

} // namespace

EvilLine::EvilLine(int toPort, quint32 seed) : port(toPort), random(seed)
{
    clock.start();
    timer.start(5);
    connect(&timer, &QTimer::timeout, this, &EvilLine::tick);
    listen(QHostAddress::LocalHost);
}

void EvilLine::incomingConnection(qintptr descriptor)
{
    ++connections;
    pairs.push_back(std::make_unique<Pair>());
    Pair &pair = *pairs.back();
    QTcpSocket(&ends)[2] = pair.ends;
    ends[0].setSocketDescriptor(descriptor);
    connect(&ends[1], &QTcpSocket::bytesWritten, this, [this](qint64 size) { carried += size; });
    ends[1].connectToHost(QHostAddress::LocalHost, quint16(port));
    for (const int i : {0, 1}) {
        ends[i].setReadBufferSize(mostUnderWay);
        pair.ways[i] = {&ends[i], &ends[1 - i], {}, 0};
    }
    pair.left = 1000000 + qint64(random.bounded(4000000));
}

void EvilLine::tick()
{
    const qint64 now = clock.elapsed();
    if (!isCalm && now > nextStall) {
        stalledUntil = now + stallMs;
        nextStall = now + stallEveryMs;
    }
    for (auto &pair : pairs) {
        bool isOpen = pair->isCut;
        if (!isOpen)
            isOpen = carry(pair->ways[0], *pair, now) & carry(pair->ways[1], *pair, now);
        if (!isCalm && !pair->isCut && pair->left < 0) {
            pair->isCut = ++broken % 6 == 1;
            isOpen = pair->isCut;
        }
        if (!isOpen) {
            pair->ends[0].abort();
            pair->ends[1].abort();
        }
    }
    const auto isGone = [](const auto &pair) { return isOver(pair->ends[0]) && isOver(pair->ends[1]); };
    pairs.erase(std::remove_if(pairs.begin(), pairs.end(), isGone), pairs.end());
}

/// @return false when the connection is over and everything has come through
bool EvilLine::carry(Way &way, Pair &pair, qint64 now)
{
    const QByteArray arrived = way.from->read(mostUnderWay - way.bytes);
    if (!arrived.isEmpty())
        way.underWay.emplace_back(now + delayMs, arrived);
    way.bytes += arrived.size();
    if (way.to->state() < QAbstractSocket::ConnectedState && !isOver(*way.to))
        return true;
    for (; now > stalledUntil && !way.underWay.empty() && way.underWay.front().first <= now;
         way.underWay.pop_front()) {
        const QByteArray &bytes = way.underWay.front().second;
        way.to->write(bytes);
        way.bytes -= bytes.size();
        pair.left -= bytes.size();
    }
    return !way.underWay.empty() || !isOver(*way.from);
}
