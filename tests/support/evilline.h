// A line that delays, stalls, resets connections after some megabytes, or leaves them half open.
#pragma once

#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <algorithm>
#include <deque>
#include <memory>
#include <vector>

class EvilLine : public QTcpServer
{
public:
    EvilLine(int toPort, quint32 seed) : port(toPort), random(seed)
    {
        clock.start();
        timer.start(5);
        connect(&timer, &QTimer::timeout, this, &EvilLine::tick);
        listen(QHostAddress::LocalHost);
    }

    bool isCalm = false; // from now on nothing goes wrong any more

    qint64 carried = 0; // bytes that have reached the called side
    int broken = 0;
    int connections = 0;

private:
    static constexpr int delayMs = 100; // each way
    static constexpr int stallMs = 3000;
    static constexpr int stallEveryMs = 25000;
    static constexpr int mostUnderWay = 512 * 1024;

    struct Way
    {
        QTcpSocket *from;
        QTcpSocket *to;
        std::deque<std::pair<qint64, QByteArray>> underWay; // and when it is due
        int bytes = 0;
    };
    struct Pair
    {
        QTcpSocket ends[2]; // who has called, who is called
        Way ways[2];
        qint64 left;        // until it breaks
        bool isCut = false; // half open: nobody hears of it
    };

    static bool isOver(const QTcpSocket &socket)
    {
        return socket.state() == QAbstractSocket::UnconnectedState;
    }

    void incomingConnection(qintptr descriptor) override
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

    void tick()
    {
        const qint64 now = clock.elapsed();
        if (!isCalm && now > nextStall) {
            stalledUntil = now + stallMs;
            nextStall = now + stallEveryMs;
        }
        for (auto &pair : pairs) {
            bool isOpen = true;
            for (Way &way : pair->ways)
                isOpen &= pair->isCut || carry(way, *pair, now);
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
    bool carry(Way &way, Pair &pair, qint64 now)
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

    const int port;
    QRandomGenerator random;
    QElapsedTimer clock;
    QTimer timer;
    qint64 nextStall = 10000;
    qint64 stalledUntil = 0;
    std::vector<std::unique_ptr<Pair>> pairs;
};
