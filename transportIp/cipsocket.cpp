#include "transportIp/cipsocket.h"

#include "transportIp/cipsettings.h"

#include <algorithm>

#include <poll.h>

namespace {

constexpr qint64 mebibyte = 1024 * 1024;
constexpr qint64 readAheadBytes = mebibyte;

/// Room for two of the configured blocks, so that a protocol that goes by them never waits here.
qint64 queueBound()
{
    const qint64 block = qint64(CurrentIpSettings::blockSizeKb()) * 1024;
    return std::clamp(2 * block, mebibyte, 64 * mebibyte);
}

} // namespace

CIpSocket::CIpSocket()
{
    setReadBufferSize(readAheadBytes);
}

void CIpSocket::tune()
{
    setSocketOption(QAbstractSocket::LowDelayOption, 1); // protocols answer; nothing here sends in crumbs
}

bool CIpSocket::waitForBytesWritten(int msecs)
{
    if (bytesToWrite() == 0 || socketDescriptor() < 0)
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
    const qint64 bound = queueBound();
    if (bytesToWrite() + size <= bound)
        return QTcpSocket::writeData(data, size);

    flush();
    if (state() != ConnectedState)
        return -1;
    const qint64 room = bound - bytesToWrite();
    return room > 0 ? QTcpSocket::writeData(data, std::min(size, room)) : 0;
}
