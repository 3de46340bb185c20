#include "tests/fire/load.h"
#include "tests/fire/eventloop.h"
#include "tests/fire/relay.h"

#include <algorithm>
#include <cstring>

/// One slot: a connection after another.
class Load::Client : public QTcpSocket
{
public:
    explicit Client(Load &owner) : load(owner), plan(owner.plan)
    {
        timer.setSingleShot(true);
        timer.setTimerType(Qt::PreciseTimer);
        connect(&timer, &QTimer::timeout, this, &Client::act);
        connect(this, &QTcpSocket::connected, this, &Client::begin);
        connect(this, &QTcpSocket::readyRead, this, &Client::take);
        connect(this, &QTcpSocket::bytesWritten, this, &Client::push);
        connect(this, &QTcpSocket::stateChanged, this, &Client::leave);
        act();
    }
    ~Client() override { disconnect(this); }

    void end()
    {
        isDropped = false;
        endNow(this, plan.resetEvery > 0 && number % plan.resetEvery == 0);
    }

private:
    void act()
    {
        if (state() == UnconnectedState && load.begun < load.total) {
            number = load.begun++;
            setReadBufferSize(plan.reads ? 0 : 1);
            connectToHost(QHostAddress::LocalHost, quint16(plan.port));
        } else if (state() == ConnectedState && !opening.isEmpty()) {
            write(opening.left(1));
            opening.remove(0, 1);
            timer.start(plan.dripMs);
        } else if (state() == ConnectedState && toOpen == 0) {
            ask();
        }
    }

    void begin()
    {
        constexpr int smallBuffer = 4096; // who does not read is to be noticed early
        if (!plan.reads)
            setSocketOption(ReceiveBufferSizeSocketOption, smallBuffer);
        ++load.connected;
        isDropped = true;
        begun = nowUs();
        round = 0;
        awaited.clear();
        opening = plan.opening ? plan.opening(number) : QByteArray();
        toOpen = plan.opening ? plan.openingAnswer : 0;
        if (plan.dripMs == 0)
            write(std::exchange(opening, {}));
        // Spread over the period, as clients that do not know of each other are.
        timer.start(plan.periodMs * (number % plan.slots_) / plan.slots_);
    }

    void ask()
    {
        if (plan.rounds == 0)
            return end();
        QByteArray request = plan.request;
        const int stamp[] = {number, round};
        if (plan.answer.isEmpty() && request.size() >= int(sizeof stamp))
            std::memcpy(request.data(), stamp, sizeof stamp);
        if (plan.reads)
            awaited = plan.answer.isEmpty() ? request : plan.answer;
        asked = nowUs();
        write(request);
    }

    void push(qint64 count)
    {
        if (plan.reads)
            return;
        load.pushed += count;
        if (bytesToWrite() == 0 && load.pushed < plan.most)
            write(plan.request);
    }

    void take()
    {
        if (!plan.reads)
            return;
        QByteArray bytes = readAll();
        const int greeted = std::min(toOpen, bytes.size());
        bytes.remove(0, greeted);
        toOpen -= greeted;
        if (greeted > 0 && toOpen == 0) {
            ++load.opened;
            if (!timer.isActive())
                timer.start(0);
        }
        if (bytes.isEmpty())
            return;
        if (!awaited.startsWith(bytes)) {
            load.wrong += bytes.size();
            return;
        }
        awaited.remove(0, bytes.size());
        if (!awaited.isEmpty())
            return;
        const qint64 us = nowUs() - asked;
        load.latencies.push_back(int(us));
        ++load.rounds;
        if (++round >= plan.rounds)
            return end();
        timer.start(std::max(0, plan.periodMs - int(us / 1000)));
    }

    void leave(SocketState now)
    {
        if (now != UnconnectedState)
            return;
        if (begun == 0) {
            ++load.failed;
        } else {
            ++load.closed;
            load.dropped += isDropped;
            if (isDropped)
                load.lives.push_back(int((nowUs() - begun) / 1000));
        }
        begun = 0;
        timer.start(plan.pauseMs);
    }

    Load &load;
    const LoadPlan &plan;
    QTimer timer; // when to act again
    int number = 0;
    int round = 0;
    qint64 begun = 0; // 0: not connected
    qint64 asked = 0;
    bool isDropped = true; // when it ends now
    QByteArray opening;    // what is still to be dripped
    int toOpen = 0;        // bytes of the opening's answer that are still to come
    QByteArray awaited;    // rest of the answer
};

Load::Load(LoadPlan how) : plan(std::move(how)), total(plan.total > 0 ? plan.total : plan.slots_)
{
    for (int i = 0; i < plan.slots_; ++i)
        clients.push_back(std::make_unique<Client>(*this));
}

Load::~Load()
{
    closeAll();
}

void Load::closeAll()
{
    begun = total;
    for (const auto &client : clients) {
        if (client->state() != QTcpSocket::UnconnectedState)
            client->end();
    }
}

double Load::latency(double part)
{
    if (latencies.empty())
        return -1;
    std::sort(latencies.begin(), latencies.end());
    return latencies[std::size_t(double(latencies.size() - 1) * part)] / 1000.0;
}
