#include "host/check/ccheckprotocol.h"

#include "common/global.h"

#include <QElapsedTimer>

#include <algorithm>

namespace {

constexpr int pollMs = 2;
constexpr int readSizes[] = {64 * 1024, 1, 7, 4096};
constexpr int readLimitMs = 1000; // "never blocks", on a busy machine
constexpr int mostPieceBytes = 64 * 1024;
constexpr int floodPieceBytes = 256 * 1024;
constexpr int mostFloodBytes = 64 * 1024 * 1024;

char payloadByte(int offset)
{
    return char((offset * 31 + offset / 251) & 0xff);
}

} // namespace

std::atomic<int> CCheckProtocol::lastNumber{0};

CCheckProtocol::CCheckProtocol(CChannel *ownedChannel, CRecorder &seenBy)
    : CAbstractProtocol(ownedChannel), recorder(seenBy), behaviour(seenBy.behaviour())
{
    connect(&clock, &QTimer::timeout, this, &CCheckProtocol::work);
    recorder.enter(number, this);
    recorder.note(What::Create, number);
}

CCheckProtocol::~CCheckProtocol()
{
    recorder.leave(number);
    recorder.note(What::Read, number, QString(), readBytes);
    recorder.note(What::Written, number, QString(), writtenBytes);
    recorder.note(What::Gone, number, remoteAbonentName, wasUseful);
}

void CCheckProtocol::start()
{
    CAbstractProtocol::start();
    isCaller = !remoteAbonentName.isEmpty();
    recorder.addPresets({remoteAbonentName, remoteAbonentFilteredName, label, channel->kind});
    recorder.note(What::Start, number, remoteAbonentName);
    if (behaviour.finishesInStart)
        return end();
    if (isCaller)
        outbox = QStringLiteral("%1|Звонящий %2\n").arg(remoteAbonentName).arg(number).toUtf8();
    clock.start(pollMs);
}

void CCheckProtocol::stop()
{
    if (behaviour.finishesInStop) {
        if (!isEnded.exchange(true))
            Q_EMIT finished();
        return;
    }
    QMetaObject::invokeMethod(this, &CCheckProtocol::end, Qt::QueuedConnection);
}

void CCheckProtocol::work()
{
    if (isEnded)
        return;
    const bool wasConnected = channel->isConnected(); // before reading: the last bytes come first
    if (isCaller || !isGreeted || !behaviour.isDeaf)
        receive();
    transmit();
    if (!wasConnected)
        end();
}

void CCheckProtocol::receive()
{
    constexpr int mostReads = 16;
    for (int i = 0; i < mostReads; ++i) {
        const int asked = readSizes[++turn % int(std::size(readSizes))];
        QElapsedTimer watch;
        watch.start();
        const QByteArray bytes = channel->read(asked);
        if (watch.elapsed() > readLimitMs)
            recorder.complain("read", QStringLiteral("read() не возвращался %1 мс").arg(watch.elapsed()));
        if (bytes.size() > asked) {
            recorder.complain("read", QStringLiteral("read(%1) вернул %2 байт").arg(asked).arg(bytes.size()));
        }
        if (bytes.isEmpty())
            return;
        readBytes += bytes.size();
        if (isGreeted) {
            takePayload(bytes);
        } else {
            received += bytes;
            takeGreeting();
        }
    }
}

void CCheckProtocol::takeGreeting()
{
    const int lineEnd = received.indexOf('\n');
    if (lineEnd < 0)
        return;
    isGreeted = true;
    const QString names = QString::fromUtf8(received.left(lineEnd));
    remoteAbonentName = names.section(QLatin1Char('|'), isCaller ? 0 : 1, isCaller ? 0 : 1);
    remoteAbonentFilteredName = Global::filterName(remoteAbonentName);
    recorder.note(What::Named, number, remoteAbonentName);
    Q_EMIT remoteAbonentNameChanged(remoteAbonentName);
    if (!isCaller)
        outbox += received.left(lineEnd + 1);
    const QByteArray rest = received.mid(lineEnd + 1);
    received.clear();
    if (!rest.isEmpty())
        takePayload(rest);
}

void CCheckProtocol::takePayload(const QByteArray &bytes)
{
    if (!isCaller) {
        outbox += bytes;
        return;
    }
    for (int i = 0; i < bytes.size(); ++i) {
        if (bytes[i] == payloadByte(payloadBack + i))
            continue;
        recorder.complain("data", QStringLiteral("Байт %1 из %2 пришел назад другим")
                                      .arg(payloadBack + i)
                                      .arg(behaviour.payloadBytes));
        break;
    }
    payloadBack += bytes.size();
    if (payloadBack >= behaviour.payloadBytes && !wasUseful) {
        wasUseful = true;
        recorder.note(What::Exchanged, number, remoteAbonentName);
    }
}

void CCheckProtocol::transmit()
{
    if (isCaller && isGreeted && behaviour.floods) {
        if (writtenBytes < mostFloodBytes)
            write(QByteArray(floodPieceBytes, 'x'));
        return;
    }
    if (isCaller && isGreeted && !isPayloadQueued && recorder.mayExchange) {
        isPayloadQueued = true;
        outbox.resize(behaviour.payloadBytes);
        for (int i = 0; i < outbox.size(); ++i)
            outbox[i] = payloadByte(i);
    }
    while (!outbox.isEmpty() && channel->isConnected()) {
        const int room = std::min(channel->idealBlockSize(), mostPieceBytes);
        if (room <= 0)
            return;
        write(outbox.left(room));
        outbox.remove(0, room);
    }
}

void CCheckProtocol::write(const QByteArray &piece)
{
    QElapsedTimer watch;
    watch.start();
    channel->write(piece);
    writtenBytes += piece.size();
    int longest = recorder.longestWriteMs;
    while (int(watch.elapsed()) > longest &&
           !recorder.longestWriteMs.compare_exchange_weak(longest, int(watch.elapsed())))
        ;
}

void CCheckProtocol::end()
{
    if (isEnded.exchange(true))
        return;
    clock.stop();
    channel->disconnectFromAbonent();
    Q_EMIT finished();
}

CAbstractProtocol *CCheckProtocolFactory::createProtocol(CChannel *channel)
{
    if (recorder.behaviour().refuses) {
        recorder.note(What::Create, -1);
        return nullptr;
    }
    return new CCheckProtocol(channel, recorder);
}
