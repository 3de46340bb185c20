// Protocols that hold nothing but the bare channel and look at it whenever their thread wakes.
//
// The dispatcher of the connection's thread says that it has woken after the socket's bytes have
// reached the channel, so nothing is polled: an idle connection costs no processor time.
#pragma once

#include "interfaces/cabstractprotocol.h"

#include <atomic>
#include <functional>

class QAbstractEventDispatcher;

/// What all of them share: waking and ending. [connection thread], but for stop()
class CAwakeProtocol : public CAbstractProtocol
{
public:
    using CAbstractProtocol::CAbstractProtocol;

    void start() override;
    void stop() override; // [any thread]

protected:
    /// The thread has woken: bytes may have come, or have gone.
    virtual void look() = 0;

    /// Says that the conversation is over, once.
    void end();

private:
    void wake();

    QAbstractEventDispatcher *dispatcher = nullptr;
    std::atomic<bool> stopRequested{false};
    bool over = false;
};

/// Sends everything back.
class CEchoProtocol : public CAwakeProtocol
{
public:
    using CAwakeProtocol::CAwakeProtocol;

protected:
    void look() override;
};

/// Takes 32 bytes, answers 32, closes.
class CHelloProtocol : public CAwakeProtocol
{
public:
    using CAwakeProtocol::CAwakeProtocol;

protected:
    void look() override;

private:
    QByteArray question;
};

/// Takes what comes and hands each block's size to a function.
class CSinkProtocol : public CAwakeProtocol
{
public:
    using Took = std::function<void(int bytes)>;

    CSinkProtocol(CChannel *ownedChannel, int blockSize, Took tookBlock);

protected:
    void look() override;

private:
    const int block;
    const Took took;
};

/// Writes as much as the channel wants until a function says that it is enough.
class CSourceProtocol : public CAwakeProtocol
{
public:
    using Enough = std::function<bool()>;

    CSourceProtocol(CChannel *ownedChannel, int blockSize, Enough isEnough);

protected:
    void look() override;

private:
    const QByteArray block;
    const Enough enough;
};
