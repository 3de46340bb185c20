#include "transportIp/ctcpserver.h"

#include "common/descriptor.h"
#include "transportIp/threadcheck.h"

#include <QHostAddress>

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>

namespace {

constexpr int listenQueueLength = 4096; // the kernel cuts it to net.core.somaxconn
constexpr int acceptsPerTurn = 64;      // then the server's other events get their turn
constexpr int acceptRestMs = 500;       // each error is reported: this bounds the flood of them
constexpr rlim_t descriptorsAtOnce = 1024;

bool isPassing(int error)
{
    // The connection ended before we took it, or a network error of its own was waiting in it: see accept(2).
    switch (error) {
    case EINTR:
    case ECONNABORTED:
    case EPROTO:
    case ENETDOWN:
    case ENOPROTOOPT:
    case EHOSTDOWN:
    case ENONET:
    case EHOSTUNREACH:
    case EOPNOTSUPP:
    case ENETUNREACH:
        return true;
    default:
        return false;
    }
}

/// In a process with several threads the kernel waits 10 to 20 ms whenever it enlarges the table of
/// descriptors (64, 128, 256...), which a burst of calls would pay for. A descriptor at the end of the
/// room that we want has it made now.
void makeRoomForDescriptors(int descriptor)
{
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const auto last = int(std::min(limit.rlim_cur, descriptorsAtOnce)) - 1;
    CDescriptor(::fcntl(descriptor, F_DUPFD_CLOEXEC, last)).reset();
}

} // namespace

CTcpServer::CTcpServer(QObject *parent) : QTcpServer(parent), rest(this)
{
    rest.setSingleShot(true);
    rest.setInterval(acceptRestMs);
    connect(&rest, &QTimer::timeout, this, &CTcpServer::resume);
}

CTcpServer::~CTcpServer()
{
    for (const qintptr descriptor : qAsConst(pendingDescriptors))
        CDescriptor(int(descriptor)).reset();
}

bool CTcpServer::listenOn(quint16 port)
{
    ASSERT_IN_THREAD(thread());
    if (!listen(QHostAddress::AnyIPv4, port))
        return false;
    pauseAccepting(); // Qt's loop
    ::listen(int(socketDescriptor()), listenQueueLength);
    const int on = 1; // accepted sockets inherit it: protocols answer, nothing here sends in crumbs
    ::setsockopt(int(socketDescriptor()), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    makeRoomForDescriptors(int(socketDescriptor()));
    readable = std::make_unique<QSocketNotifier>(socketDescriptor(), QSocketNotifier::Read, this);
    connect(readable.get(), &QSocketNotifier::activated, this, &CTcpServer::acceptConnections);
    return true;
}

void CTcpServer::closeListener()
{
    ASSERT_IN_THREAD(thread());
    rest.stop();
    readable.reset();
    close();
}

void CTcpServer::pause()
{
    ASSERT_IN_THREAD(thread());
    rest.stop();
    if (readable)
        readable->setEnabled(false);
}

void CTcpServer::resume()
{
    ASSERT_IN_THREAD(thread());
    if (readable)
        readable->setEnabled(true);
}

void CTcpServer::incomingConnection(qintptr socketDescriptor)
{
    pendingDescriptors.append(socketDescriptor);
    Q_EMIT newConnection();
}

void CTcpServer::acceptConnections()
{
    ASSERT_IN_THREAD(thread());
    for (int i = 0; i < acceptsPerTurn && isListening(); ++i) {
        const int descriptor = ::accept4(int(socketDescriptor()), nullptr, nullptr, SOCK_CLOEXEC);
        if (descriptor >= 0) {
            incomingConnection(descriptor);
            continue;
        }
        const int error = errno;
        if (isPassing(error))
            continue;
        if (error == EAGAIN)
            return;

        readable->setEnabled(false); // it stays readable: rest instead of spinning
        rest.start();
        acceptErrorText = qt_error_string(error);
        Q_EMIT acceptError(QAbstractSocket::SocketResourceError);
        return;
    }
}
