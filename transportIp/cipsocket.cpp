#include "transportIp/cipsocket.h"

#include "common/terminationguard.h"
#include "transportIp/cipsettings.h"

#include <algorithm>
#include <cerrno>

#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr qint64 mebibyte = 1024 * 1024;
constexpr qint64 readAheadBytes = 4096; // what Qt may read on its own; the rest stays with the system

/// Room for two of the configured blocks, so that a protocol that goes by them never waits here.
qint64 queueBound()
{
    const qint64 block = qint64(CurrentIpSettings::blockSizeKb()) * 1024;
    return std::clamp(2 * block, mebibyte, 64 * mebibyte);
}

} // namespace

CIpSocket::CIpSocket()
    : dispatcher(qobject_cast<CConnectionDispatcher *>(QAbstractEventDispatcher::instance())),
      mayHoldMore(dispatcher) // a caller's first bytes are mostly there when the protocol starts
{
    setReadBufferSize(readAheadBytes);
    if (dispatcher)
        dispatcher->serve(this);
}

CIpSocket::~CIpSocket()
{
    if (dispatcher)
        dispatcher->release(this);
}

void CIpSocket::tune()
{
    setSocketOption(QAbstractSocket::LowDelayOption, 1); // protocols answer; nothing here sends in crumbs
}

QByteArray CIpSocket::takeArrived(int maxSize)
{
    const qint64 ahead = bytesAvailable();
    if (ahead > 0) {
        isUntouched = false;
        const bool isFull = ahead >= readBufferSize(); // so there may be more behind it
        return read(isFull ? maxSize : std::min<qint64>(maxSize, ahead));
    }
    if (!mayHoldMore || maxSize <= 0)
        return {};
    // A reader may name any number: it is no reason to ask for gigabytes of memory.
    QByteArray bytes(int(std::min<qint64>(maxSize, mebibyte)), Qt::Uninitialized);
    bytes.resize(int(receiveNow(bytes.data(), bytes.size())));
    return bytes;
}

qint64 CIpSocket::bytesToWrite() const
{
    return state() == ConnectedState ? queued() + sentThisTurn : queued();
}

bool CIpSocket::waitForBytesWritten(int msecs)
{
    if (queued() == 0 || socketDescriptor() < 0)
        return false;

    pollfd writable = {int(socketDescriptor()), POLLOUT, 0};
    if (::poll(&writable, 1, msecs) == 0) {
        setErrorString(QStringLiteral("Network operation timed out"));
        return false;
    }
    return flush();
}

qint64 CIpSocket::writeData(const char *data, qint64 size)
{
    if (queued() > 0)
        flush();
    if (state() != ConnectedState && state() != ClosingState)
        return QTcpSocket::writeData(data, size); // says what is wrong

    const qint64 sent = queued() == 0 ? sendNow(data, size) : 0;
    const qint64 room = std::clamp<qint64>(queueBound() - queued(), 0, size - sent);
    return room > 0 ? sent + QTcpSocket::writeData(data + sent, room) : sent;
}

/// @return how much the system has taken; an error shows when the queue is flushed
qint64 CIpSocket::sendNow(const char *data, qint64 size)
{
    const CTerminationGuard guard;
    const ssize_t sent = ::send(int(socketDescriptor()), data, size_t(size), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent <= 0)
        return 0;
    if (dispatcher) {
        sentThisTurn += sent;
        dispatcher->wakeUp(); // nothing is queued, so nothing else would end the turn
    }
    return sent;
}

qint64 CIpSocket::readData(char *data, qint64 maxSize)
{
    const qint64 readAhead = QTcpSocket::readData(data, maxSize);
    return readAhead == 0 && maxSize > 0 ? receiveNow(data, maxSize) : readAhead;
}

/// @return the number of bytes; an end or an error is left for Qt to find
qint64 CIpSocket::receiveNow(char *data, qint64 maxSize)
{
    if (state() != ConnectedState)
        return 0;
    const CTerminationGuard guard;
    const ssize_t received = ::recv(int(socketDescriptor()), data, size_t(maxSize), MSG_DONTWAIT);
    isUntouched = received == 0 || (received < 0 && errno != EAGAIN);
    mayHoldMore = received == maxSize;
    return std::max<ssize_t>(0, received);
}

bool CIpSocket::keepsFromQt(qintptr descriptor)
{
    if (isUntouched || state() != ConnectedState || descriptor != socketDescriptor())
        return false;
    isUntouched = true;
    mayHoldMore = true;
    return true;
}
