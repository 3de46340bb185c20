#include "host/check/ccheckprotocol.h"

#include "common/global.h"
#include "host/check/cstopwatch.h"

#include <QAbstractEventDispatcher>

#include <algorithm>

namespace {

constexpr int pollMs = 2;
constexpr int readSizes[] = {64 * 1024, 1, 7, 4096};
constexpr int promptMs = 250; // asleep, so that a busy machine does not count
constexpr int mostPieceBytes = 64 * 1024;
constexpr int floodPieceBytes = 256 * 1024;
constexpr int mostFloodBytes = 64 * 1024 * 1024;

/// @return bytes of the payload, in which each place looks different from those nearby
QByteArray payload(int offset, int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    char *byte = bytes.data();
    for (int i = offset; i < offset + size; ++i)
        *byte++ = char((i * 31 + i / 251) & 0xff);
    return bytes;
}

} // namespace

std::atomic<int> CCheckProtocol::lastNumber{0};

template <typename Call>
auto CCheckProtocol::prompt(const char *what, const Call &call)
{
    const CStopwatch watch;
    const auto result = call();
    if (const int ms = watch.asleep(); ms > promptMs)
        recorder.complain("read",
                          QStringLiteral("%1 держит протокол %2 мс").arg(QLatin1String(what)).arg(ms));
    return result;
}

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
    if (isCaller && room() <= 0 && isStillConnected())
        recorder.complain("room", QStringLiteral("idealBlockSize() нового соединения равен %1").arg(room()));
    if (isCaller && !behaviour.isNameless)
        outbox = QStringLiteral("%1|Звонящий %2\n").arg(remoteAbonentName).arg(number).toUtf8();
    if (behaviour.isTimeless)
        connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake, this,
                &CCheckProtocol::work);
    else
        clock.start(pollMs);
}

void CCheckProtocol::stop()
{
    recorder.note(What::Stop, number, QString(), hasWorked);
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
    if (!hasWorked.exchange(true))
        recorder.note(What::Worked, number);
    ++recorder.looks;
    const bool isConnected = isStillConnected(); // before reading: the last bytes come first
    const bool isDeaf = !isCaller && isGreeted && behaviour.isDeaf && recorder.isDeaf;
    if (!isDeaf)
        receive();
    transmit();
    if (!isConnected && !behaviour.holdsOut && !(isDeaf && behaviour.hangsUp))
        end(); // of what has arrived nothing is left
}

bool CCheckProtocol::isStillConnected()
{
    const bool isConnected = prompt("isConnected()", [this] { return channel->isConnected(); });
    if (isConnected && !wasConnected)
        recorder.complain("connected", QStringLiteral("isConnected() снова true после false"));
    wasConnected = isConnected;
    return isConnected;
}

int CCheckProtocol::room()
{
    return prompt("idealBlockSize()", [this] { return channel->idealBlockSize(); });
}

void CCheckProtocol::receive()
{
    constexpr int mostReads = 16;
    for (int i = 0; i < mostReads || behaviour.isTimeless; ++i) {
        const int asked = readSizes[++turn % int(std::size(readSizes))];
        const QByteArray bytes = prompt("read()", [this, asked] { return channel->read(asked); });
        if (bytes.size() > asked)
            recorder.complain("read", QStringLiteral("read(%1) вернул %2 байт").arg(asked).arg(bytes.size()));
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
    const bool isOther = isCaller && !behaviour.answersAs.isNull();
    remoteAbonentName =
        isOther ? behaviour.answersAs : names.section(QLatin1Char('|'), isCaller ? 0 : 1, isCaller ? 0 : 1);
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
    if (!isCaller && !behaviour.isSink) {
        outbox += bytes;
        return;
    }
    const QByteArray wanted = payload(payloadBack, bytes.size());
    const auto different = std::mismatch(bytes.begin(), bytes.end(), wanted.begin());
    if (different.first != bytes.end())
        recorder.complain("data", QStringLiteral("Байт %1 из %2 пришел другим")
                                      .arg(payloadBack + int(different.first - bytes.begin()))
                                      .arg(behaviour.payloadBytes));
    payloadBack += bytes.size();
    if (payloadBack > behaviour.payloadBytes && behaviour.payloadBytes > 0)
        recorder.complain(
            "data",
            QStringLiteral("Пришло байт: %1, отправлено: %2").arg(payloadBack).arg(behaviour.payloadBytes));
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
    const bool mayExchange = isCaller && isGreeted && recorder.mayExchange;
    for (;;) {
        const int payloadLeft = mayExchange ? behaviour.payloadBytes - payloadSent : 0;
        const bool isDone = outbox.isEmpty() && payloadLeft == 0;
        if (isDone && mayExchange && behaviour.hangsUp)
            end();
        if (isDone || !isStillConnected())
            return;
        const int size = std::min(room(), mostPieceBytes);
        if (size <= 0)
            return recorder.note(What::Full, number);
        if (!outbox.isEmpty()) {
            write(outbox.left(size));
            outbox.remove(0, size);
        } else {
            write(payload(payloadSent, std::min(size, payloadLeft)));
            payloadSent += std::min(size, payloadLeft);
        }
    }
}

void CCheckProtocol::write(const QByteArray &piece)
{
    const CStopwatch watch;
    channel->write(piece);
    writtenBytes += piece.size();
    int longest = recorder.longestWriteMs;
    while (watch.elapsed() > longest &&
           !recorder.longestWriteMs.compare_exchange_weak(longest, watch.elapsed()))
        ;
}

void CCheckProtocol::end()
{
    if (isEnded.exchange(true))
        return;
    clock.stop();
    channel->disconnectFromAbonent();
    for (int i = 0; i < 2; ++i) { // it must not come back either
        if (channel->isConnected())
            recorder.complain("connected",
                              QStringLiteral("isConnected() вернул true после disconnectFromAbonent()"));
    }
    Q_EMIT finished();
}

CAbstractProtocol *CCheckProtocolFactory::createProtocol(CChannel *channel)
{
    const unsigned refusals = recorder.behaviour().refusals;
    if ((refusals >> (recorder.nextConnection() % 32)) & 1U) {
        recorder.note(What::Create, -1);
        return nullptr;
    }
    return new CCheckProtocol(channel, recorder);
}
