#include "bench/channelbench/protocols.h"

#include <QAbstractEventDispatcher>

namespace {

constexpr int helloSize = 32;
constexpr int echoReadSize = 4096;

} // namespace

void CAwakeProtocol::start()
{
    CAbstractProtocol::start();
    dispatcher = QAbstractEventDispatcher::instance();
    connect(
        dispatcher, &QAbstractEventDispatcher::awake, this, [this] { wake(); }, Qt::DirectConnection);
}

void CAwakeProtocol::stop()
{
    stopRequested = true;
    if (dispatcher != nullptr)
        dispatcher->wakeUp();
}

void CAwakeProtocol::wake()
{
    if (over)
        return;
    look();
    if (stopRequested || !channel->isConnected())
        end();
}

void CAwakeProtocol::end()
{
    if (over)
        return;
    over = true;
    Q_EMIT finished();
}

void CEchoProtocol::look()
{
    while (channel->idealBlockSize() > 0) {
        const QByteArray bytes = channel->read(echoReadSize);
        if (!bytes.isEmpty())
            channel->write(bytes);
        if (bytes.size() < echoReadSize)
            break;
    }
}

void CHelloProtocol::look()
{
    question += channel->read(helloSize - question.size());
    if (question.size() < helloSize)
        return;
    channel->write(question);
    channel->disconnectFromAbonent();
    end();
}

CSinkProtocol::CSinkProtocol(CChannel *ownedChannel, int blockSize, Took tookBlock)
    : CAwakeProtocol(ownedChannel), block(blockSize), took(std::move(tookBlock))
{}

void CSinkProtocol::look()
{
    for (QByteArray bytes = channel->read(block); !bytes.isEmpty(); bytes = channel->read(block))
        took(bytes.size());
}

CSourceProtocol::CSourceProtocol(CChannel *ownedChannel, int blockSize, Enough isEnough)
    : CAwakeProtocol(ownedChannel), block(blockSize, 'x'), enough(std::move(isEnough))
{}

void CSourceProtocol::look()
{
    while (!enough()) {
        const int wanted = channel->idealBlockSize();
        if (wanted <= 0 || !channel->isConnected())
            return;
        channel->write(wanted >= block.size() ? block : QByteArray::fromRawData(block.constData(), wanted));
    }
    if (channel->idealBlockSize() < block.size())
        return; // the last bytes are on their way
    channel->disconnectFromAbonent();
    end();
}
