// A line that delays, stalls, resets connections after some megabytes, or leaves them half open.
#pragma once

#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <deque>
#include <memory>
#include <vector>

class EvilLine : public QTcpServer
{
public:
    EvilLine(int toPort, quint32 seed);

    bool isCalm = false; // from now on nothing goes wrong any more

    qint64 carried = 0; // bytes that have reached the called side
    int broken = 0;
    int connections = 0;

private:
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

    void incomingConnection(qintptr descriptor) override;
    void tick();
    bool carry(Way &way, Pair &pair, qint64 now);

    const int port;
    QRandomGenerator random;
    QElapsedTimer clock;
    QTimer timer;
    qint64 nextStall = 10000;
    qint64 stalledUntil = 0;
    std::vector<std::unique_ptr<Pair>> pairs;
};
