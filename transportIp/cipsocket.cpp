#include "transportIp/cipsocket.h"

#include "common/terminationguard.h"
#include "transportIp/cipsettings.h"
#include "transportIp/threadcheck.h"

#include <QDeadlineTimer>

#include <algorithm>
#include <cerrno>

#include <malloc.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace {

constexpr qint64 mebibyte = 1024 * 1024;
constexpr qint64 readAheadBytes = 64 * mebibyte;
constexpr qint64 hoardBytes = mebibyte;          // so much free memory is not left with malloc()
constexpr qint64 discardedBytes = 64 * mebibyte; // of what the other side sends after our farewell
constexpr int leaveMs = 100;                     // for the other side to follow, once the queue is empty
constexpr int scratchBytes = 65536;
constexpr int receivedAtOnceBytes = 32 * 1024; // more at once takes up to twice as long: docs/performance.md
// A read that gave so much took its time: more may have come meanwhile.
constexpr int lookAgainBytes = 16384;
constexpr short endEvents = POLLRDHUP | POLLHUP | POLLERR | POLLNVAL;

/// Room for two of the configured blocks, so that a protocol that goes by them never waits here.
qint64 queueBound()
{
    const qint64 block = qint64(CurrentIpSettings::blockSizeKb()) * 1024;
    return std::clamp(2 * block, mebibyte, 64 * mebibyte);
}

int pollOne(pollfd *one, const QDeadlineTimer &deadline)
{
    return ::poll(one, 1, deadline.isForever() ? -1 : int(deadline.remainingTime()));
}

} // namespace

CIpSocket::CIpSocket()
    : dispatcher(qobject_cast<CConnectionDispatcher *>(QAbstractEventDispatcher::instance()))
{
    Q_ASSERT_X(dispatcher, "CIpSocket", "made in a thread of a CConnectionDispatcher only");
    dispatcher->serve(this);
}

CIpSocket::~CIpSocket()
{
    if (dispatcher)
        dispatcher->release(this);
    arrived.clear();
    giveBack();
}

void CIpSocket::tune()
{
    ASSERT_IN_THREAD(thread());
    setSocketOption(QAbstractSocket::LowDelayOption, 1); // protocols answer; nothing here sends in crumbs
}

bool CIpSocket::isConnected() const
{
    ASSERT_IN_THREAD(thread());
    return state() == ConnectedState && !hasEnded && !isLeaving;
}

QByteArray CIpSocket::takeArrived(int maxSize)
{
    ASSERT_IN_THREAD(thread());
    const int wished =
        int(std::min<qint64>(maxSize, mebibyte)); // any number is no reason to ask for gigabytes
    if (wished <= 0)
        return {};
    isTold = false;
    if (arrived.size() == 0 && !mayHoldMore)
        return {};

    QByteArray bytes(wished, Qt::Uninitialized);
    int size = 0;
    while (size < wished && arrived.size() > 0) {
        const int part = std::min(wished - size, arrived.frontSize());
        std::copy_n(arrived.front(), part, bytes.data() + size);
        arrived.remove(part);
        size += part;
    }
    giveBack();
    while (size < wished && mayHoldMore)
        size += receiveNow(bytes.data() + size, wished - size);
    bytes.resize(size);
    if (arrived.size() > 0)
        dispatcher->goOn(); // the system tells again of what it still holds, too
    return bytes;
}

qint64 CIpSocket::bytesToWrite() const
{
    ASSERT_IN_THREAD(thread());
    return outgoing.size() + (state() == ConnectedState ? sentThisTurn : 0);
}

bool CIpSocket::waitForBytesWritten(int msecs)
{
    ASSERT_IN_THREAD(thread());
    const QDeadlineTimer deadline(msecs);
    const qint64 before = outgoing.size();
    while (isOpenForBytes() && outgoing.size() == before && before > 0) {
        const bool reads = !isReadOut && arrived.size() < readAheadBytes;
        pollfd one = {int(socketDescriptor()), short(reads ? POLLOUT | POLLIN | POLLRDHUP : POLLOUT), 0};
        if (pollOne(&one, deadline) <= 0) {
            setErrorString(QStringLiteral("Network operation timed out"));
            return false;
        }
        if (one.revents & (POLLIN | endEvents))
            readAhead(one.revents & endEvents);
        if (one.revents & (POLLOUT | POLLHUP | POLLERR))
            sendQueue();
    }
    return outgoing.size() < before;
}

void CIpSocket::leave(int msecs)
{
    ASSERT_IN_THREAD(thread());
    farewell(msecs);
    isLeaving = true;
    if (outgoing.size() == 0)
        disconnectFromHost();
}

void CIpSocket::farewell(int msecs)
{
    ASSERT_IN_THREAD(thread());
    const QDeadlineTimer deadline(msecs);
    while (waitForBytesWritten(int(deadline.remainingTime())))
        ;
    if (!isOpenForBytes() || outgoing.size() > 0 || readAhead(false) == 0 || isReadOut)
        return;

    // The other side is still sending. Closing now would reset the connection, and an answer under way be
    // lost.
    pollfd one = {int(socketDescriptor()), POLLIN, 0};
    ::shutdown(one.fd, SHUT_WR);
    for (qint64 discarded = 0; discarded < discardedBytes && pollOne(&one, deadline) > 0;) {
        const CTerminationGuard guard;
        const ssize_t size = ::recv(one.fd, nullptr, size_t(mebibyte), MSG_DONTWAIT | MSG_TRUNC);
        if (size <= 0)
            return; // it is done, too
        discarded += size;
    }
}

void CIpSocket::cut()
{
    ASSERT_IN_THREAD(thread());
    outgoing.clear();
    abort();
    if (dispatcher)
        dispatcher->goOn(); // whoever has written looks again, though nothing else will happen here
}

/// @return whether bytes can go either way, whoever has begun to end the connection
bool CIpSocket::isOpenForBytes() const
{
    return state() == ConnectedState;
}

qint64 CIpSocket::writeData(const char *data, qint64 size)
{
    if (!isOpenForBytes())
        return QTcpSocket::writeData(data, size); // says what is wrong
    if (isLeaving || !sendQueue())
        return -1;

    const qint64 sent = outgoing.size() == 0 ? sendNow(data, size) : 0;
    if (sent < 0)
        return -1;
    const qint64 room = std::clamp<qint64>(queueBound() - outgoing.size(), 0, size - sent);
    outgoing.append(data + sent, room);
    return sent + room;
}

/// @return how much the system has taken, -1 when the connection is broken; what had arrived stays
qint64 CIpSocket::sendNow(const char *data, qint64 size)
{
    const CTerminationGuard guard;
    const ssize_t sent = ::send(int(socketDescriptor()), data, size_t(size), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0) {
        sentThisTurn += sent;
        dispatcher->goOn(); // nothing else would end the turn
        return sent;
    }
    if (sent == 0 || errno == EAGAIN)
        return 0;
    setErrorString(qt_error_string(errno));
    outgoing.clear();
    readAhead(true);
    hasEnded = true;
    return -1;
}

/// @return false when the connection is broken
bool CIpSocket::sendQueue()
{
    while (outgoing.size() > 0) {
        const int size = outgoing.frontSize();
        const qint64 sent = sendNow(outgoing.front(), size);
        if (sent < 0)
            return false;
        outgoing.remove(int(sent));
        if (sent < size)
            break;
    }
    return true;
}

/// @return the number of bytes; what an end or an error means is left to happened()
int CIpSocket::receiveNow(char *data, int maxSize)
{
    const CTerminationGuard guard;
    const int wished = std::min(maxSize, receivedAtOnceBytes);
    const ssize_t received =
        isOpenForBytes() ? ::recv(int(socketDescriptor()), data, size_t(wished), MSG_DONTWAIT) : 0;
    isReadOut = received == 0 || (received < 0 && errno != EAGAIN);
    mayHoldMore = received == wished || received >= lookAgainBytes;
    return int(std::max<ssize_t>(0, received));
}

/// Takes over what has arrived.
///
/// @param isLast all of it: no more than that will come, and it goes with the descriptor
/// @return the number of bytes
qint64 CIpSocket::readAhead(bool isLast)
{
    const CTerminationGuard guard;
    const qint64 before = arrived.size();
    QByteArray scratch(scratchBytes, Qt::Uninitialized);
    while (!isReadOut && (isLast || arrived.size() < readAheadBytes)) {
        const ssize_t received = ::recv(int(socketDescriptor()), scratch.data(), scratchBytes, MSG_DONTWAIT);
        isReadOut = received == 0 || (received < 0 && errno != EAGAIN);
        if (received <= 0)
            break;
        arrived.append(scratch.constData(), received);
    }
    hasHoard = hasHoard || arrived.size() > hoardBytes;
    if (arrived.size() > before && dispatcher)
        dispatcher->goOn();
    return arrived.size() - before;
}

/// Once all that was read ahead has been read, the system gets its memory.
void CIpSocket::giveBack()
{
    if (hasHoard && arrived.size() == 0) {
        const CTerminationGuard guard;
        hasHoard = false;
        ::malloc_trim(0);
    }
}

pollfd CIpSocket::wanted() const
{
    if (!isOpenForBytes() || (hasEnded && outgoing.size() == 0))
        return {-1, 0, 0}; // Qt connects, and Qt finds the end
    int events = 0;
    if (!hasEnded)
        events |= isTold ? POLLRDHUP : POLLRDHUP | POLLIN;
    if (outgoing.size() > 0)
        events |= POLLOUT;
    return {int(socketDescriptor()), short(events), 0};
}

void CIpSocket::happened(short events)
{
    const bool isEnd = events & endEvents;
    if (isEnd && (isTold || isLeaving || isAllRead())) {
        readAhead(true);
        hasEnded = true;
    } else if (isEnd || (events & POLLIN)) {
        // Whoever goes on reading hears of the end behind the last byte.
        mayHoldMore = true;
        isTold = !isLeaving || readAhead(false) == 0; // who leaves may not read any more
    }
    if (events & (POLLOUT | POLLHUP | POLLERR))
        sendQueue();
    if (isLeaving && outgoing.size() == 0)
        leave(leaveMs);
}

bool CIpSocket::isAllRead() const
{
    int unread = 0;
    return arrived.size() == 0 &&
           (isReadOut || ::ioctl(int(socketDescriptor()), FIONREAD, &unread) < 0 || unread == 0);
}
