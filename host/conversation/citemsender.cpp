#include "host/conversation/citemsender.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr qint64 smallBytes = 256 * 1024; // sent without waiting for an answer
constexpr qint64 askedBytes = 4 * 1024;   // not more than the question
constexpr std::size_t mostFlights = 512;
constexpr qint64 mostEagerBytes = 16 * 1024 * 1024;
constexpr int mostLargeOffers = 2;
constexpr int mostPostponed = 16;              // the other side has no room: going on would be in vain
constexpr int checkedAtOnce = 8 * 1024 * 1024; // read before other events get their turn
constexpr int readBytes = 256 * 1024;

} // namespace

CItemSender::CItemSender(std::shared_ptr<CSendQueue> fromQueue) : queue(std::move(fromQueue))
{
    frame.reserve(FrameLimits::dataHeaderSize + FrameLimits::dataBytes); // a reserved array keeps its memory
}

CItemSender::~CItemSender() = default;

void CItemSender::showOn(CTransferBoard *where, const QString &abonent)
{
    board = where;
    remoteName = abonent;
}

QByteArray CItemSender::nextFrame(int room)
{
    frame.resize(0);
    busy = false;
    auto flight = flights.find(current);
    if (flight == flights.end()) {
        flight = std::find_if(flights.begin(), flights.end(), [](const auto &each) {
            return each.second.state == Checking || each.second.state == Ready;
        });
        if (flight == flights.end())
            return postponed > mostPostponed ? QByteArray() : offerNext();
        current = flight->first;
        if (flight->second.state == Ready)
            flight->second.state = Sending;
    }
    if (flight->second.job.entry->isWithdrawn && !flight->second.isAtOnce) {
        giveUp(flight, QString());
        busy = true;
        return frame;
    }
    return flight->second.state == Checking ? check(flight) : send(flight, room);
}

QByteArray CItemSender::offerNext()
{
    if (flights.size() >= mostFlights || eagerBytes >= mostEagerBytes)
        return QByteArray();
    const CSendQueue::Job job = queue->takeUp(smallBytes, largeOffers < mostLargeOffers);
    return job.entry ? offer(job, false) : QByteArray();
}

QByteArray CItemSender::offer(const CSendQueue::Job &job, bool isAnew)
{
    Flight flight;
    flight.job = job;
    OfferFrame question = job.message().offer;
    question.item = ++last;
    question.isAnew = isAnew;
    // What was under way before may be stored there, though we have not heard: better ask than send it again.
    const bool mayBeThere = job.isAgain && question.size > askedBytes;
    question.isAtOnce = flight.isAtOnce =
        question.size <= smallBytes && question.kind != OfferFrame::Tree && !mayBeThere;
    flight.offeredSize = question.size;
    flight.reader = std::make_unique<COutgoingReader>(job.entry->directory, job.message());
    if (flight.isAtOnce) {
        flight.state = Sending;
        eagerBytes += question.size;
        current = last;
    } else if (question.size > smallBytes) {
        ++largeOffers;
    }
    flights.emplace(last, std::move(flight));
    return question.toBytes();
}

/// @return whether the bytes were read; otherwise the flight is over, and *anew is what to send instead
bool CItemSender::isRead(Flights::iterator flight, char *bytes, int size, QByteArray *anew)
{
    const COutgoingReader::Result result = flight->second.reader->read(bytes, size);
    if (result == COutgoingReader::Good) {
        flight->second.sum.add({bytes, std::size_t(size)});
        flight->second.done += size;
        return true;
    }
    const CSendQueue::Job job = flight->second.job;
    QString why = flight->second.reader->reason();
    if (result == COutgoingReader::Changed) {
        why = job.entry->refresh(job.index);
        if (why.isNull()) {
            giveUp(flight, QString());
            *anew = offer(job, false); // another stamp: the other side forgets what it has
            return false;
        }
    }
    queue->refused(job, why);
    giveUp(flight, why);
    return false;
}

/// Reads what the other side has already, to see whether it is the same.
QByteArray CItemSender::check(Flights::iterator flight)
{
    QByteArray bytes(readBytes, Qt::Uninitialized);
    Flight &now = flight->second;
    for (int budget = checkedAtOnce; budget > 0 && now.done < now.have; budget -= readBytes) {
        QByteArray anew;
        if (!isRead(flight, bytes.data(), int(qMin<qint64>(bytes.size(), now.have - now.done)), &anew)) {
            busy = anew.isEmpty();
            return anew;
        }
    }
    if (now.done == now.have) {
        if (now.sum.soFar() != now.haveCheck) {
            const CSendQueue::Job job = now.job;
            giveUp(flight, QString());
            return offer(job, true);
        }
        now.state = Sending;
        return send(flight, readBytes);
    }
    busy = true;
    return QByteArray();
}

QByteArray CItemSender::send(Flights::iterator flight, int room)
{
    Flight &now = flight->second;
    const qint64 left = now.job.message().offer.size - now.done;
    if (left > 0) {
        const qint64 wanted = qBound(1, room - FrameLimits::dataHeaderSize, FrameLimits::dataBytes);
        const int size = int(qMin(wanted, left));
        QByteArray anew;
        if (!isRead(flight, startDataFrame(&frame, flight->first, size), size, &anew)) {
            frame.resize(0);
            busy = anew.isEmpty();
            return anew;
        }
        queue->sent(now.job, now.done);
        if (!now.shown && board && now.done < now.job.message().offer.size)
            now.shown =
                board->putUp(false, remoteName, now.job.message().title(), now.job.message().offer.size);
        if (now.shown)
            now.shown->done.store(now.done, std::memory_order_relaxed);
        return frame;
    }
    current = 0;
    const QByteArray finish = FinishFrame{flight->first, now.sum.soFar()}.toBytes();
    now.state = Finished;
    now.reader.reset();
    if (now.isOver)
        giveUp(flight, QString());
    return finish;
}

/// The flight is over. @param why null: there is nothing to tell
void CItemSender::giveUp(Flights::iterator flight, const QString &why)
{
    if (!why.isNull())
        ownNotices.push_back({flight->second.job, false, {}, why});
    if (flight->second.isAtOnce)
        eagerBytes -= flight->second.offeredSize;
    else if (flight->second.offeredSize > smallBytes)
        --largeOffers;
    if (current == flight->first)
        current = 0;
    flights.erase(flight);
}

QString CItemSender::takeAnswer(const AnswerFrame &answer, std::vector<Notice> *notices)
{
    const auto flight = flights.find(answer.item);
    if (flight == flights.end() || flight->second.isOver) // given up meanwhile, or never offered
        return answer.item == 0 || answer.item > last ? QStringLiteral("ответ без вопроса") : QString();
    Flight &now = flight->second;
    const CSendQueue::Job job = now.job;

    if (answer.verdict == AnswerFrame::Send) {
        if (now.state != Offered || now.isAtOnce)
            return QStringLiteral("ответ не ко времени");
        now.have = qMin(answer.have, job.message().offer.size);
        now.haveCheck = answer.digest;
        now.state = now.have > 0 ? Checking : Ready;
        return QString();
    }
    if (answer.verdict == AnswerFrame::Stored) {
        notices->push_back({job, true, answer.digest, QString()});
        queue->stored(job, answer.digest);
    } else if (answer.verdict == AnswerFrame::Refused) {
        notices->push_back({job, false, {}, answer.reason});
        queue->refused(job, answer.reason);
    } else {
        ++postponed; // it stays under way for the queue, so it is not offered again here
        reason = answer.reason;
    }
    // Bytes that are to follow at once follow to their end: the other side passes over them.
    if (now.isAtOnce && now.state == Sending)
        now.isOver = true;
    else
        giveUp(flight, QString());
    return QString();
}

qint64 CItemSender::unconfirmed() const
{
    qint64 sum = 0;
    for (const auto &[number, flight] : flights) {
        Q_UNUSED(number)
        if (flight.state == Finished)
            sum += flight.done;
    }
    return sum;
}
