#include "transportIp/cipchannel.h"

#include "common/devicewrite.h"
#include "common/logwriter.h"
#include "common/terminationguard.h"
#include "interfaces/cchannelmonitor.h"
#include "transportIp/cipsettings.h"
#include "transportIp/cipsocket.h"
#include "transportIp/ipchannelkind.h"

#include <utility>

namespace {
constexpr int farewellMs = 100; // what a disconnect may spend on handing over the queue
}

CIpChannel::CIpChannel(CIpSocket *connectedSocket, int handle, CChannelMonitor *byteCounter)
    : socket(connectedSocket), monitorHandle(handle), monitor(byteCounter)
{
    kind = ipChannelKind;
}

CIpChannel::~CIpChannel()
{
    const CTerminationGuard guard;
    delete socket;
}

void CIpChannel::disconnectFromAbonent()
{
    if (!socket)
        return;
    socket->flush();
    socket->waitForBytesWritten(farewellMs);
    socket->disconnectFromHost();
}

bool CIpChannel::isConnected()
{
    return socket && socket->state() == QAbstractSocket::ConnectedState;
}

void CIpChannel::write(const QByteArray &data)
{
    monitor->addSent(monitorHandle, data.size());
    if (data.isEmpty() || !socket || Global::writeData(*socket, data, 0))
        return;

    debug(QStringLiteral("CIpChannel"),
          QStringLiteral("Не удалось вовремя записать данные в сокет (%1). Соединение будет разорвано.")
              .arg(socket->errorString()),
          DebugAlways, DebugFlagNone);
    socket->disconnectFromHost();
    socket->close();
    socket->abort(); // a socket that is closing keeps its queue and its descriptor
}

QByteArray CIpChannel::read(int maxSize)
{
    if (!socket || !socket->isOpen())
        return {};
    QByteArray bytes = socket->takeArrived(maxSize);
    if (!bytes.isEmpty())
        monitor->addReceived(monitorHandle, bytes.size());
    return bytes;
}

int CIpChannel::idealBlockSize()
{
    // Any block size is taken as it is, so the product wraps around instead of overflowing.
    const quint32 queued = socket ? quint32(socket->bytesToWrite()) : 0;
    return int(quint32(CurrentIpSettings::blockSizeKb()) * 1024U - queued);
}

void CIpChannel::dropSocket()
{
    delete std::exchange(socket, nullptr);
}
