#include "host/conversation/cmessageprotocol.h"

#include "common/global.h"
#include "common/terminationguard.h"
#include "host/conversation/cdelivery.h"
#include "interfaces/cjournal.h"

#include <QAbstractEventDispatcher>

#include <utility>

namespace {

constexpr int answeredGreetingMs = 5000;
constexpr int placedGreetingMs = 15000;
constexpr int clockMs = 20000; // how often a quiet connection is looked at
constexpr int silenceLimitMs = 60000;

constexpr int readBytes = 256 * 1024;
constexpr int readBytesBeforeGreeting = 8 * 1024;
constexpr int turnBytes = 1024 * 1024; // read or written before other events get their turn
constexpr int outboxLimit = 16 * 1024; // beyond it we do not read on: who does not listen is not heard
constexpr int leastRoom = 512;         // smaller pieces are not worth sending

} // namespace

CMessageProtocol::CMessageProtocol(CChannel *ownedChannel, const Context &around)
    : CAbstractProtocol(ownedChannel), context(around), receiver(around.store)
{
    deadline.setSingleShot(true);
    connect(&deadline, &QTimer::timeout, this, &CMessageProtocol::lookAtClock);
}

CMessageProtocol::~CMessageProtocol()
{
    context.unnamed->remove(this);
}

void CMessageProtocol::start()
{
    CAbstractProtocol::start();
    isPlaced = !remoteAbonentName.isEmpty();
    sinceExchange.start();
    deadline.start(isPlaced ? placedGreetingMs : answeredGreetingMs);
    if (isPlaced)
        outbox = GreetingFrame{GreetingFrame::currentVersion, context.ownName}.toBytes();
    else
        context.unnamed->add(this, context.originOf(label));

    connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake, this,
            &CMessageProtocol::work);
    workAgain();
}

void CMessageProtocol::stop()
{
    request = Stop;
    QMetaObject::invokeMethod(this, &CMessageProtocol::work, Qt::QueuedConnection);
}

void CMessageProtocol::giveWay()
{
    int none = NoRequest;
    request.compare_exchange_strong(none, GiveWay);
    QMetaObject::invokeMethod(this, &CMessageProtocol::work, Qt::QueuedConnection);
}

/// Does what can be done now. Called whenever something may have changed.
void CMessageProtocol::work()
{
    // A thread that is ended for being late ends in its event loop, not within our files and locks.
    const CTerminationGuard guard;
    isWorkQueued = false;
    if (isEnded)
        return;
    if (request == Stop)
        return sayGoodbye(QStringLiteral("Абонент завершает работу"));
    if (request == GiveWay)
        return breakOff(QStringLiteral("слишком много соединений, в которых абонент не назвался"));

    receive();
    if (!isEnded)
        transmit();
    if (!isEnded && !channel->isConnected() && !isWorkQueued)
        end(QStringLiteral("Соединение потеряно"));
}

void CMessageProtocol::workAgain()
{
    if (isWorkQueued)
        return;
    isWorkQueued = true;
    QMetaObject::invokeMethod(this, &CMessageProtocol::work, Qt::QueuedConnection);
}

void CMessageProtocol::receive()
{
    int turn = turnBytes;
    while (!isEnded && outbox.size() < outboxLimit) {
        FrameView frame{};
        const CFrameReader::Step step = reader.next(&frame);
        if (step == CFrameReader::Ready) {
            take(frame);
            continue;
        }
        if (step == CFrameReader::Malformed)
            return breakOff(QStringLiteral("это не протокол абонента"));
        if (turn <= 0)
            return workAgain();
        const QByteArray bytes = channel->read(isGreeted ? readBytes : readBytesBeforeGreeting);
        if (bytes.isEmpty())
            return;
        turn -= bytes.size();
        sinceExchange.start();
        reader.feed(bytes);
    }
}

void CMessageProtocol::take(const FrameView &frame)
{
    if (!isGreeted && frame.type != FrameType::Greeting && frame.type != FrameType::Bye)
        return breakOff(QStringLiteral("абонент не назвался"));

    switch (frame.type) {
    case FrameType::Greeting:
        return takeGreeting(GreetingFrame::fromPayload(frame.payload));
    case FrameType::Offer:
        if (const auto offer = OfferFrame::fromPayload(frame.payload))
            return react(receiver.takeOffer(*offer, remoteAbonentName));
        break;
    case FrameType::Data:
        return react(receiver.takeData(frame.payload));
    case FrameType::Finish:
        if (const auto finish = FinishFrame::fromPayload(frame.payload))
            return react(receiver.takeFinish(*finish));
        break;
    case FrameType::Answer:
        if (const auto answer = AnswerFrame::fromPayload(frame.payload))
            return takeAnswer(*answer);
        break;
    case FrameType::Ping:
        isPongDue = true; // one answer is enough for many
        return;
    case FrameType::Pong:
        isPingSent = false;
        return;
    case FrameType::Bye:
        if (const auto reason = byeReason(frame.payload)) {
            channel->disconnectFromAbonent();
            return end(reason->isEmpty() ? QStringLiteral("Абонент закончил разговор") : *reason);
        }
        break;
    }
    breakOff(QStringLiteral("неверное содержание кадра %1").arg(int(frame.type)));
}

void CMessageProtocol::takeGreeting(const std::optional<GreetingFrame> &greeting)
{
    if (isGreeted || !greeting)
        return breakOff(QStringLiteral("неверное приветствие"));
    if (greeting->version != GreetingFrame::currentVersion) {
        return sayGoodbye(QStringLiteral("Версия протокола %1 не поддерживается, нужна %2")
                              .arg(greeting->version)
                              .arg(GreetingFrame::currentVersion));
    }
    const QString filteredName = Global::filterName(greeting->name);
    if (filteredName.isEmpty())
        return breakOff(QStringLiteral("в имени абонента нет ни букв, ни цифр"));

    isGreeted = true;
    const bool isSomebodyElse = isPlaced && filteredName != remoteAbonentFilteredName;
    remoteAbonentName = greeting->name;
    remoteAbonentFilteredName = filteredName;
    if (isSomebodyElse) {
        const QString text = QStringLiteral("Ответил другой абонент: '%1'").arg(greeting->name);
        if (context.delivery)
            context.delivery->refuseAbonent(text);
        return sayGoodbye(QStringLiteral("Вызван другой абонент"));
    }
    context.unnamed->remove(this);
    deadline.start(clockMs);
    if (!isPlaced)
        outbox += GreetingFrame{GreetingFrame::currentVersion, context.ownName}.toBytes();
    else if (context.delivery)
        sender = std::make_unique<CItemSender>(*context.delivery);
    emit remoteAbonentNameChanged(remoteAbonentName);
}

void CMessageProtocol::takeAnswer(const AnswerFrame &answer)
{
    QString event;
    const QString fault = sender ? sender->takeAnswer(answer, &event) : QStringLiteral("ответ без вопроса");
    if (!fault.isNull())
        return breakOff(fault);
    if (!event.isNull()) {
        wasUseful = true;
        context.journal->addRecord(JournalEvent, label, event);
    }
}

void CMessageProtocol::react(const CItemReceiver::Reaction &reaction)
{
    outbox += reaction.reply;
    wasUseful |= reaction.stored;
    if (!reaction.event.isNull())
        context.journal->addRecord(JournalEvent, label, reaction.event);
    if (!reaction.error.isNull())
        context.journal->addRecord(JournalError, label, reaction.error);
    if (!reaction.fault.isNull())
        breakOff(reaction.fault);
}

/// Writes as much as the channel wants, so that no write has to wait. When it wants nothing more,
/// bytes of ours are queued in it, and their departure wakes us.
void CMessageProtocol::transmit()
{
    for (int turn = turnBytes; channel->isConnected();) {
        const int room = channel->idealBlockSize();
        if (room < leastRoom)
            return;
        if (turn <= 0)
            return workAgain();
        const QByteArray frame = nextFrame(room);
        if (frame.isEmpty())
            break;
        turn -= frame.size();
        channel->write(frame);
        sinceExchange.start();
    }
    if (sender && sender->isDone())
        sayGoodbye(QString());
}

/// The next bytes to write: what waits in the outbox, then the items.
QByteArray CMessageProtocol::nextFrame(int room)
{
    if (isPongDue) {
        outbox += emptyFrame(FrameType::Pong);
        isPongDue = false;
    }
    if (!outbox.isEmpty())
        return std::exchange(outbox, QByteArray());
    return sender ? sender->nextFrame(room) : QByteArray();
}

void CMessageProtocol::lookAtClock()
{
    const CTerminationGuard guard;
    const bool isKept = __atomic_exchange_n(&keepAliveRequested, false, __ATOMIC_ACQ_REL);
    const qint64 silentMs = sinceExchange.elapsed();
    if (isEnded)
        return;
    if (!isGreeted)
        return breakOff(QStringLiteral("абонент не назвался вовремя"));
    if (silentMs >= silenceLimitMs)
        return breakOff(QStringLiteral("абонент молчит"));
    deadline.start(clockMs);
    if (isKept && !isPingSent && silentMs >= clockMs / 2) {
        isPingSent = true;
        outbox += emptyFrame(FrameType::Ping);
        workAgain();
    }
}

/// Ends a connection that is of no use. The other side hears nothing but the end.
void CMessageProtocol::breakOff(const QString &how)
{
    context.journal->addRecord(JournalError, label, QStringLiteral("Соединение разорвано: %1").arg(how));
    channel->disconnectFromAbonent();
    end(how);
}

/// Ends a connection in order.
void CMessageProtocol::sayGoodbye(const QString &reason)
{
    if (channel->isConnected() && channel->idealBlockSize() >= leastRoom)
        channel->write(outbox + byeFrame(reason));
    channel->disconnectFromAbonent();
    end(reason);
}

void CMessageProtocol::end(const QString &trouble)
{
    isEnded = true;
    deadline.stop();
    context.unnamed->remove(this);
    if (isPlaced && context.delivery)
        context.delivery->callEnded(trouble);
    emit finished();
}
