// The protocol of the checks: the caller names both sides, the called one sends the names back and
// echoes everything after them. So an echo at the far end serves as well.
//
//   "called|caller\n" payload      <->      "called|caller\n" payload
#pragma once

#include "host/check/crecorder.h"
#include "interfaces/cabstractprotocol.h"
#include "interfaces/cprotocolfactory.h"

#include <QTimer>

#include <atomic>

class CCheckProtocol final : public CAbstractProtocol
{
public:
    CCheckProtocol(CChannel *ownedChannel, CRecorder &seenBy);
    ~CCheckProtocol() override;

    void start() override;
    void stop() override;

private:
    void work();
    void receive();
    void takeGreeting();
    void takePayload(const QByteArray &bytes);
    void transmit();
    void write(const QByteArray &piece);
    bool isStillConnected();
    int room();
    void end();

    /// Calls the channel, for which a rule says that it does not keep anybody waiting.
    template <typename Call>
    auto prompt(const char *what, const Call &call);

    static std::atomic<int> lastNumber;

    CRecorder &recorder;
    const Behaviour behaviour;
    const int number = ++lastNumber;
    QTimer clock; // a channel of any kind can be polled
    bool isCaller = false;
    bool isGreeted = false;
    bool wasConnected = true;
    std::atomic<bool> hasWorked{false};
    std::atomic<bool> isEnded{false}; // finished() has been said, by whatever thread
    int turn = 0;                     // varies the sizes of reads
    QByteArray received;              // until the greeting is complete
    QByteArray outbox;
    int payloadSent = 0;
    int payloadBack = 0;
    qint64 readBytes = 0;
    qint64 writtenBytes = 0;
};

class CCheckProtocolFactory final : public CProtocolFactory
{
public:
    explicit CCheckProtocolFactory(CRecorder &seenBy) : recorder(seenBy) {}
    ~CCheckProtocolFactory() override { recorder.note(What::FactoryGone); }
    CAbstractProtocol *createProtocol(CChannel *channel) override;

private:
    CRecorder &recorder;
};
