// A bad line between a client and a server: it delays, stalls, cuts and resets what passes through it.
#pragma once

#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <deque>
#include <memory>
#include <vector>

class Relay final : public QTcpServer
{
public:
    explicit Relay(int targetPort);
    ~Relay() override { cut(false); }

    int passing() const { return int(pairs.size()); }

    /// Ends all that passes now: both sides see a close, or a reset.
    void cut(bool byReset);

    // For all that passes from now on.
    int target;
    int delayMs = 0;
    bool isStalled = false;

private:
    struct End
    {
        QTcpSocket socket;
        std::deque<std::pair<qint64, QByteArray>> said; // and when it is due at the other end
    };
    struct Pair
    {
        End ends[2];
    };

    void incomingConnection(qintptr descriptor) override;
    void move();

    QTimer tick;
    std::vector<std::unique_ptr<Pair>> pairs;
};

/// Ends a connection now.
void endNow(QTcpSocket *socket, bool byReset);
