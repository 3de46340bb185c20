#include "host/conversation/cmessageprotocol.h"

#include "common/buildconstants.h"
#include "common/global.h"
#include "common/terminationguard.h"
#include "host/conversation/csendqueue.h"
#include "host/delivery/cidentity.h"
#include "host/delivery/cmessagejournal.h"
#include "interfaces/cjournal.h"

#include <QAbstractEventDispatcher>
#include <QFile>

#include <algorithm>
#include <utility>

namespace {

constexpr int answeredGreetingMs = 5000;
constexpr int placedGreetingMs = 15000;
constexpr int quietClockMs = 20000; // how often a connection without anything under way is looked at
constexpr int busyClockMs = 2000;
constexpr int quietLimitMs = 60000;
constexpr int busyPingMs = 4000;
constexpr int busyLimitMs = 15000;
constexpr qint64 slowestDiskBytesPerMs = 4 * 1024; // the other side may be waiting for its disk

constexpr int readBytes = 256 * 1024;
constexpr int readBytesBeforeGreeting = 8 * 1024;
constexpr int turnBytes = 1024 * 1024;   // read or written before other events get their turn
constexpr int outboxLimit = 256 * 1024;  // beyond it we do not read on: who does not listen is not heard
constexpr int leastRoom = 512;           // smaller pieces are not worth sending
constexpr int gatheredBytes = 64 * 1024; // frames that are sent with one call
constexpr qint64 usefulBytes = 64 * 1024;

MessageNews newsOf(JournalRow kind, const QString &abonent, const OfferFrame &offer)
{
    MessageNews news;
    news.row.kind = kind;
    news.row.abonent = abonent;
    news.row.name = offer.kind == OfferFrame::Text ? QString() : QFile::decodeName(offer.name);
    news.row.size = offer.size;
    news.row.message = QString::fromLatin1(offer.identity.toHex());
    news.kind = offer.kind;
    return news;
}

/// A called side of version 1 answers in its own frames, without TLS.
bool speaksVersion1(const QByteArray &beginning)
{
    return beginning.size() >= 4 && beginning.at(0) >= 1 && beginning.at(0) <= 8 &&
           beginning.mid(1, 3) == QByteArray(3, '\0');
}

CSendQueue::Code codeOf(Verdict verdict)
{
    return verdict == Verdict::KeyChanged  ? CSendQueue::KeyChanged
           : verdict == Verdict::NameTaken ? CSendQueue::NameTaken
                                           : CSendQueue::Refused;
}

CSendQueue::Code codeOf(ByeFrame::Code code)
{
    switch (code) {
    case ByeFrame::WrongOne:
        return CSendQueue::SomebodyElse;
    case ByeFrame::Unwelcome:
        return CSendQueue::Refused;
    case ByeFrame::Unreadable:
        return CSendQueue::OtherVersion;
    case ByeFrame::NameTaken:
        return CSendQueue::NameTaken;
    case ByeFrame::Done:
    case ByeFrame::Stopping:
        break;
    }
    return CSendQueue::NotDelivered;
}

} // namespace

CMessageProtocol::CMessageProtocol(CChannel *ownedChannel, const Context &around)
    : CAbstractProtocol(ownedChannel), context(around)
{
    deadline.setSingleShot(true);
    connect(&deadline, &QTimer::timeout, this, &CMessageProtocol::lookAtClock);
}

CMessageProtocol::~CMessageProtocol()
{
    context.unnamed->remove(this);
    if (queue)
        queue->detach(this);
}

void CMessageProtocol::start()
{
    CAbstractProtocol::start();
    isPlaced = !remoteAbonentName.isEmpty();
    calledFilteredName = remoteAbonentFilteredName;
    reach(PingResult::Connected);
    sinceExchange.start();
    deadline.start(isPlaced ? placedGreetingMs : answeredGreetingMs);
    tls = std::make_unique<CTlsSession>(isPlaced ? CTlsSession::Calling : CTlsSession::Answering,
                                        *context.identity);
    if (!isPlaced)
        context.unnamed->add(this, context.originOf(label));

    connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake, this,
            &CMessageProtocol::work);
    workAgain();
}

void CMessageProtocol::stop()
{
    leaveWord(Stop);
}

void CMessageProtocol::giveWay()
{
    leaveWord(GiveWay);
}

void CMessageProtocol::superseded()
{
    leaveWord(Superseded);
}

void CMessageProtocol::wake()
{
    leaveWord(NoRequest);
}

void CMessageProtocol::reach(PingResult::Stage stage)
{
    if (isPlaced && context.ping)
        context.ping->reached = stage;
}

void CMessageProtocol::leaveWord(int what)
{
    int known = request;
    while (known < what && !request.compare_exchange_weak(known, what)) {
    }
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
        return sayGoodbye(ByeFrame::Stopping, QStringLiteral("Абонент завершает работу"));
    if (request == GiveWay)
        return breakOff(QStringLiteral("слишком много соединений, в которых абонент не назвался"));
    if (request == Superseded)
        return breakOff(QStringLiteral("абонент вызвал снова"));

    receive();
    if (!isEnded)
        transmit();
    if (!isEnded && !channel->isConnected() && !isWorkQueued)
        end(CSendQueue::NotDelivered, QStringLiteral("Соединение потеряно"));
    if (!isEnded && isGreeted && deadline.interval() != clockMs())
        deadline.start(clockMs());
}

/// How soon the clock is to be looked at.
int CMessageProtocol::clockMs() const
{
    return isUnderWay() ? busyClockMs : isPlaced ? qBound(1, context.lingerMs, quietClockMs) : quietClockMs;
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
    bool isDry = false; // nothing more has come
    while (!isEnded && !isDry && outbox.size() < outboxLimit) {
        FrameView frame{};
        const CFrameReader::Step step = reader.next(&frame);
        if (step == CFrameReader::Malformed)
            return breakOff(QStringLiteral("это не протокол абонента"));
        if (step == CFrameReader::Ready)
            take(frame);
        else if (turn <= 0)
            return workAgain();
        else
            isDry = !takeBytes(&turn);
        if (!isEnded && receiver && receiver->wantsToSettle())
            react(receiver->settle());
    }
    // All that has come together is stored together: one wait for the disk.
    if (!isEnded && receiver)
        react(receiver->settle());
    if (!isEnded && receiver && receiver->isBusy()) {
        react(receiver->work());
        workAgain();
    }
}

/// Takes what the channel has and gives the reader what TLS makes of it. @return whether there was anything
bool CMessageProtocol::takeBytes(int *turn)
{
    QByteArray plain = tls->takePlain(readBytes);
    if (plain.isEmpty()) {
        const QByteArray bytes = channel->read(isGreeted ? readBytes : readBytesBeforeGreeting);
        if (!bytes.isEmpty()) {
            sinceExchange.start();
            const bool wasEstablished = tls->isEstablished();
            if (!wasEstablished && firstBytes.size() < 8)
                firstBytes += bytes.left(8);
            tls->feed(bytes);
            *turn -= bytes.size();
            if (!wasEstablished && tls->isEstablished())
                secured();
            plain = tls->takePlain(readBytes);
            if (plain.isEmpty() && tls->trouble().isNull())
                return true;
        }
    }
    if (!plain.isEmpty()) {
        reader.feed(plain);
        return true;
    }
    if (!tls->trouble().isNull()) {
        if (!isPlaced && isVersion1(firstBytes))
            refuseVersion1();
        else
            breakOff(tls->trouble(), isPlaced && speaksVersion1(firstBytes) ? CSendQueue::OtherVersion
                                                                            : CSendQueue::NotDelivered);
    }
    return false;
}

/// The other side has proved which key it has. Who has called speaks first.
void CMessageProtocol::secured()
{
    reach(PingResult::Secured);
    if (isPlaced)
        outbox += HelloFrame{HelloFrame::currentVersion, context.ownPort, context.ownName,
                             QLatin1String(BuildConstants::version)}
                      .toBytes();
}

void CMessageProtocol::take(const FrameView &frame)
{
    if (!isGreeted && frame.type != FrameType::Hello && frame.type != FrameType::Bye)
        return breakOff(QStringLiteral("абонент не назвался"));

    switch (frame.type) {
    case FrameType::Hello:
        return takeHello(HelloFrame::fromPayload(frame.payload));
    case FrameType::Offer:
        if (const auto offer = OfferFrame::fromPayload(frame.payload)) {
            if (receiver)
                return react(receiver->takeOffer(*offer));
            outbox +=
                AnswerFrame{offer->item, AnswerFrame::Later, 0, {}, QStringLiteral("Здесь не принимают")}
                    .toBytes();
            return;
        }
        break;
    case FrameType::Data:
        moved += qint64(frame.payload.size());
        if (receiver)
            react(receiver->takeData(frame.item, frame.payload));
        return;
    case FrameType::Finish:
        if (const auto finish = FinishFrame::fromPayload(frame.payload)) {
            if (receiver)
                react(receiver->takeFinish(*finish));
            return;
        }
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
        if (isPlaced && context.ping) {
            context.ping->isAnswered = true;
            context.ping->roundTripUs = sincePing.nsecsElapsed() / 1000;
            sayGoodbye(ByeFrame::Done, QString());
        }
        return;
    case FrameType::Bye:
        if (const auto bye = ByeFrame::fromPayload(frame.payload))
            return takeBye(*bye);
        break;
    }
    breakOff(QStringLiteral("неверное содержание кадра %1").arg(int(frame.type)));
}

void CMessageProtocol::takeHello(const std::optional<HelloFrame> &hello)
{
    if (isGreeted || !hello)
        return breakOff(QStringLiteral("неверное приветствие"));
    if (hello->version != HelloFrame::currentVersion) {
        const QString text = QStringLiteral("Версия протокола %1 не поддерживается, нужна %2")
                                 .arg(hello->version)
                                 .arg(HelloFrame::currentVersion);
        noteTrouble(CSendQueue::OtherVersion, text);
        return sayGoodbye(ByeFrame::Unreadable, text);
    }
    const QString filteredName = Global::filterName(hello->name);
    if (filteredName.isEmpty())
        return breakOff(QStringLiteral("в имени абонента нет ни букв, ни цифр"));

    isGreeted = true;
    const bool isSomebodyElse = isPlaced && filteredName != calledFilteredName;
    reach(isSomebodyElse ? PingResult::Greeted : PingResult::Named);
    remoteAbonentName = hello->name;
    remoteAbonentFilteredName = filteredName;
    if (isSomebodyElse) {
        noteTrouble(CSendQueue::SomebodyElse,
                    QStringLiteral("Ответил другой абонент: '%1'").arg(hello->name));
        return sayGoodbye(ByeFrame::WrongOne, QStringLiteral("Вызван другой абонент"));
    }
    believe(*hello, context.contacts->judge(hello->name, tls->peerFingerprint(),
                                            isPlaced ? CContacts::Placed : CContacts::Answered));
}

/// Goes on with an abonent whose name and key fit, or ends.
void CMessageProtocol::believe(const HelloFrame &hello, const Judgement &judgement)
{
    if (judgement.mayGoOn() && !judgement.text.isNull())
        context.journal->addRecord(JournalEvent, label, judgement.text);
    if (!judgement.mayGoOn()) {
        const CSendQueue::Code code = codeOf(judgement.verdict);
        MessageNews news;
        news.row.kind = code == CSendQueue::Refused ? JournalRow::Refused : JournalRow::KeyChanged;
        news.row.abonent = hello.name;
        news.row.text = judgement.text;
        announce(news);
        noteTrouble(code, judgement.text);
        return code == CSendQueue::Refused
                   ? sayGoodbye(ByeFrame::Unwelcome, QStringLiteral("Вызываемый абонент не принимает от вас"))
                   : sayGoodbye(ByeFrame::NameTaken,
                                QStringLiteral("Это имя здесь записано с другим ключом"));
    }
    context.unnamed->remove(this);
    reach(PingResult::Believed);
    if (!isPlaced)
        outbox += HelloFrame{HelloFrame::currentVersion, context.ownPort, context.ownName,
                             QLatin1String(BuildConstants::version)}
                      .toBytes();
    emit remoteAbonentNameChanged(remoteAbonentName);
    if (isPlaced && context.ping) {
        context.ping->name = hello.name;
        context.ping->program = hello.program;
        context.ping->key = tls->peerFingerprint();
        sincePing.start();
        outbox += emptyFrame(FrameType::Ping);
        return;
    }
    if (context.inbox) {
        CItemReceiver::Sender from;
        from.name = hello.name;
        from.key = tls->peerFingerprint();
        const GeneralSettings settings = GeneralSettings::load();
        from.board = context.board;
        from.isStranger = judgement.isStranger() && settings.policy != WritingPolicy::All;
        if (from.isStranger) {
            const QDateTime today(QDate::currentDate(), QTime(0, 0));
            from.quotas = settings.quotas;
            from.messagesToday = CMessageJournal::received(Global::journalsFilePath(Global::currentSecrecy()),
                                                           today, hello.name)
                                     .messages;
        }
        receiver = std::make_unique<CItemReceiver>(*context.inbox, from, [this] { superseded(); });
    }
    if (context.queues) {
        queue = context.queues->of(remoteAbonentFilteredName);
        if (queue->attach(this))
            sender = std::make_unique<CItemSender>(queue);
        else
            queue.reset(); // another connection sends
        if (sender)
            sender->showOn(context.board, hello.name);
    }
}

void CMessageProtocol::takeBye(const ByeFrame &bye)
{
    channel->disconnectFromAbonent();
    const QString reason = bye.reason.isEmpty() ? QStringLiteral("Абонент закончил разговор") : bye.reason;
    if (bye.code != ByeFrame::Done && bye.code != ByeFrame::Stopping)
        context.journal->addRecord(JournalError, label, QStringLiteral("Абонент отказался: %1").arg(reason));
    if (context.ping && isPlaced)
        context.ping->isTurnedAway = true;
    end(codeOf(bye.code), reason);
}

void CMessageProtocol::takeAnswer(const AnswerFrame &answer)
{
    std::vector<CItemSender::Notice> notices;
    const QString fault = sender ? sender->takeAnswer(answer, &notices) : QStringLiteral("ответ без вопроса");
    if (!fault.isNull())
        return breakOff(fault);
    for (const CItemSender::Notice &notice : notices)
        tell(notice);
}

void CMessageProtocol::react(const CItemReceiver::Reaction &reaction)
{
    outbox += reaction.reply;
    for (const CItemReceiver::Notice &notice : reaction.notices)
        tell(notice);
    if (!reaction.fault.isNull())
        breakOff(reaction.fault);
}

void CMessageProtocol::tell(const CItemReceiver::Notice &notice)
{
    MessageNews news =
        newsOf(notice.isStored ? JournalRow::Received : JournalRow::Refused, remoteAbonentName, notice.offer);
    news.isIncoming = true;
    news.row.digest = notice.digest;
    news.row.text = notice.isStored ? QString() : notice.reason;
    news.text = notice.text;
    news.directory = notice.directory;
    announce(news);
    wasUseful |= notice.isStored;
    if (notice.isStored && !notice.reason.isNull())
        context.journal->addRecord(JournalError, label, notice.reason);
}

void CMessageProtocol::tell(const CItemSender::Notice &notice)
{
    MessageNews news = newsOf(notice.isStored ? JournalRow::Sent : JournalRow::Refused, remoteAbonentName,
                              notice.job.message().offer);
    news.row.digest = notice.digest;
    news.row.text = notice.reason;
    announce(news);
    wasUseful |= notice.isStored;
}

/// Into the journal of messages, and to people.
void CMessageProtocol::announce(const MessageNews &news)
{
    if (context.messages)
        context.messages->add(news.row);
    const bool isOfOurs = !news.row.message.isEmpty() || (isPlaced && news.row.kind != JournalRow::BrokenOff);
    const bool isTold = context.isWatched && !news.isIncoming && isOfOurs;
    if (context.onNews && !isTold)
        context.onNews(news);
}

/// The conversation ends while something is under way.
void CMessageProtocol::announceBroken(const QString &trouble)
{
    constexpr std::size_t mostTold = 16;
    const auto begun = receiver ? receiver->begun() : std::vector<CItemReceiver::Begun>();
    for (std::size_t i = 0; i < std::min(begun.size(), mostTold); ++i) {
        MessageNews news = newsOf(JournalRow::BrokenOff, remoteAbonentName, begun[i].offer);
        news.isIncoming = true;
        news.row.text = trouble;
        news.done = begun[i].arrived;
        announce(news);
    }
    if (!begun.empty())
        return;
    MessageNews news;
    news.row.kind = JournalRow::BrokenOff;
    news.row.abonent = remoteAbonentName;
    news.row.text = trouble;
    announce(news);
}

/// Writes as much as the channel wants, so that no write has to wait. When it wants nothing more, bytes of
/// ours are queued in it, and their departure wakes us.
void CMessageProtocol::transmit()
{
    for (int turn = turnBytes; channel->isConnected();) {
        const int room = channel->idealBlockSize();
        if (room < leastRoom)
            return;
        if (tls->outgoingSize() == 0) {
            if (!tls->isEstablished())
                return;
            if (turn <= 0)
                return workAgain();
            if (!gather(room))
                return breakOff(tls->trouble());
            if (tls->outgoingSize() == 0)
                break;
        }
        const QByteArray bytes = tls->takeOutgoing(tls->outgoingSize());
        turn -= bytes.size();
        channel->write(bytes);
    }
    if (!sender || isEnded)
        return;
    const std::vector<CItemSender::Notice> notices = sender->takeNotices();
    for (const CItemSender::Notice &notice : notices)
        tell(notice);
    if (sender->isBusy())
        return workAgain();
    if (!sender->isUnderWay() && sender->isPostponed()) {
        queue->setTrouble(CSendQueue::NoRoom, sender->postponedReason());
        return sayGoodbye(ByeFrame::Done, QString());
    }
    if (isPlaced && context.lingerMs == 0 && !isUnderWay())
        sayGoodbye(ByeFrame::Done, QString());
}

/// Encrypts what there is to say: small frames go together. @return false when the encryption has failed
bool CMessageProtocol::gather(int room)
{
    do {
        const QByteArray frame = nextFrame(room - tls->outgoingSize());
        if (frame.isEmpty())
            return true;
        if (!tls->write(frame))
            return false;
        if (frame.size() > FrameLimits::headerSize) // a ping is no sign of life
            sinceExchange.start();
    } while (tls->outgoingSize() < gatheredBytes && room - tls->outgoingSize() >= leastRoom);
    return true;
}

/// The next bytes to write: what waits in the outbox, then the messages.
QByteArray CMessageProtocol::nextFrame(int room)
{
    if (isPongDue) {
        outbox += emptyFrame(FrameType::Pong);
        isPongDue = false;
    }
    if (!outbox.isEmpty())
        return std::exchange(outbox, QByteArray());
    if (!sender)
        return QByteArray();
    const QByteArray frame = sender->nextFrame(room);
    moved += frame.size();
    wasUseful |= moved >= usefulBytes;
    return frame;
}

bool CMessageProtocol::isUnderWay() const
{
    const bool isAsking = isPlaced && context.ping && !context.ping->isAnswered;
    return isAsking || !outbox.isEmpty() || (receiver && receiver->isUnderWay()) ||
           (sender && (sender->isUnderWay() || sender->isBusy()));
}

/// How long the other side may be silent.
qint64 CMessageProtocol::patienceMs() const
{
    if (!isUnderWay())
        return quietLimitMs;
    return busyLimitMs + (sender ? sender->unconfirmed() / slowestDiskBytesPerMs : 0);
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
    if (silentMs >= patienceMs())
        return breakOff(QStringLiteral("абонент молчит"));
    if (isPlaced && !isUnderWay() && silentMs >= context.lingerMs && !isKept)
        return sayGoodbye(ByeFrame::Done, QString());
    deadline.start(clockMs());
    if (isPingSent ? false : isUnderWay() ? silentMs >= busyPingMs : isKept && silentMs >= quietClockMs / 2) {
        isPingSent = true;
        outbox += emptyFrame(FrameType::Ping);
        workAgain();
    }
}

void CMessageProtocol::refuseVersion1()
{
    const QString reason = QStringLiteral("Абонент говорит по протоколу версии 1, без шифрования: ему нужна "
                                          "программа с версией протокола %1")
                               .arg(HelloFrame::currentVersion);
    channel->write(
        version1Farewell(QStringLiteral("Версия протокола 1 не поддерживается, нужна %1: обновите программу")
                             .arg(HelloFrame::currentVersion)));
    breakOff(reason);
}

/// Why nothing comes of our call, for who waits for it.
void CMessageProtocol::noteTrouble(CSendQueue::Code code, const QString &reason)
{
    if (!isPlaced)
        return;
    if (context.ping) {
        context.ping->code = code;
        context.ping->trouble = reason;
    }
    if (context.queues)
        context.queues->of(calledFilteredName)->setTrouble(code, reason);
}

/// Ends a connection that is of no use. The other side hears nothing but the end.
void CMessageProtocol::breakOff(const QString &how, int code)
{
    if (isEnded)
        return;
    context.journal->addRecord(JournalError, label, QStringLiteral("Соединение разорвано: %1").arg(how));
    channel->disconnectFromAbonent();
    end(code, how);
}

/// Ends a connection in order.
void CMessageProtocol::sayGoodbye(ByeFrame::Code code, const QString &reason)
{
    if (channel->isConnected() && channel->idealBlockSize() >= leastRoom && tls->isEstablished()) {
        tls->write(std::exchange(outbox, QByteArray()) + ByeFrame{code, reason}.toBytes());
        tls->close();
        channel->write(tls->takeOutgoing(tls->outgoingSize()));
    }
    channel->disconnectFromAbonent();
    end(CSendQueue::NotDelivered, reason);
}

/// @param code, @param trouble why what we have for the other side is not delivered, if it is not
void CMessageProtocol::end(int code, const QString &trouble)
{
    isEnded = true;
    deadline.stop();
    context.unnamed->remove(this);
    if (isUnderWay() && isGreeted)
        announceBroken(trouble);
    const bool isFirstTrouble =
        context.ping && isPlaced && !context.ping->isAnswered && context.ping->trouble.isEmpty();
    if (isFirstTrouble && request != Stop) {
        context.ping->code = code;
        context.ping->trouble = trouble;
    }
    if (context.queues && isPlaced && !trouble.isEmpty()) {
        const std::shared_ptr<CSendQueue> called = context.queues->of(calledFilteredName);
        if (called->hasWaiting())
            called->setTroubleUnlessSet(CSendQueue::Code(code), trouble);
    }
    sender.reset();
    if (queue)
        std::exchange(queue, nullptr)->detach(this);
    receiver.reset();
    emit finished();
}
