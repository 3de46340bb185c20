#include "transportIp/cipchannel.h"

#include "common/devicewrite.h"
#include "common/logwriter.h"
#include "common/terminationguard.h"
#include "interfaces/cchannelmonitor.h"
#include "transportIp/cipsettings.h"
#include "transportIp/cipsocket.h"
#include "transportIp/ipchannelkind.h"
#include "transportIp/threadcheck.h"

#include <utility>

namespace {
constexpr int leaveMs =
    100; // what a disconnect may spend on handing over the queue and the other side's last bytes
constexpr int farewellMs = 250; // the same for a protocol that has ended without one
} // namespace

CIpChannel::CIpChannel(CIpSocket *connectedSocket, int handle, CChannelMonitor *byteCounter)
    : socket(connectedSocket), monitorHandle(handle), monitor(byteCounter), home(QThread::currentThread())
{
    kind = ipChannelKind;
}

CIpChannel::~CIpChannel()
{
    ASSERT_IN_THREAD(home);
    const CTerminationGuard guard;
    if (socket)
        socket->farewell(farewellMs);
    delete socket;
}

void CIpChannel::disconnectFromAbonent()
{
    ASSERT_IN_THREAD(home);
    if (socket)
        socket->leave(leaveMs);
}

bool CIpChannel::isConnected()
{
    ASSERT_IN_THREAD(home);
    return socket && socket->isConnected();
}

void CIpChannel::write(const QByteArray &data)
{
    ASSERT_IN_THREAD(home);
    monitor->addSent(monitorHandle, data.size());
    if (data.isEmpty() || !socket || Global::writeData(*socket, data, 0))
        return;

    debug(QStringLiteral("CIpChannel"),
          QStringLiteral("Не удалось вовремя записать данные в сокет (%1). Соединение будет разорвано.")
              .arg(socket->errorString()),
          DebugAlways, DebugFlagNone);
    socket->cut(); // a socket that is closing would keep its queue and its descriptor
}

QByteArray CIpChannel::read(int maxSize)
{
    ASSERT_IN_THREAD(home);
    if (!socket)
        return {};
    QByteArray bytes = socket->takeArrived(maxSize);
    if (!bytes.isEmpty())
        monitor->addReceived(monitorHandle, bytes.size());
    return bytes;
}

int CIpChannel::idealBlockSize()
{
    ASSERT_IN_THREAD(home);
    // Any block size is taken as it is, so the product wraps around instead of overflowing.
    const quint32 queued = socket ? quint32(socket->bytesToWrite()) : 0;
    return int(quint32(CurrentIpSettings::blockSizeKb()) * 1024U - queued);
}

void CIpChannel::dropSocket()
{
    Q_ASSERT_X(home->isFinished(), Q_FUNC_INFO, "the connection's thread still runs");
    delete std::exchange(socket, nullptr);
}
