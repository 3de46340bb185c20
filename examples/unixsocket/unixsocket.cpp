// A channel over UNIX sockets, between programs of one machine. An abonent's record is the path of the socket
// at which it answers; a relative one is taken from the data directory, where this side answers:
// "unixSocket".
#include "../threadedkind.h"
#include "common/csettings.h"
#include "common/exports.h"
#include "interfaces/pluginentry.h"

#include <QFile>
#include <QSocketNotifier>
#include <QTimer>

#include <cerrno>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int unixKind = 101;
constexpr int blockSize = 64 * 1024;
const char ownName[] = "unixSocket";

/// A descriptor that is closed when nobody holds it any more; null when there is none.
using Descriptor = std::shared_ptr<const int>;

Descriptor owned(int number)
{
    if (number < 0)
        return nullptr;
    return Descriptor(new int(number), [](const int *one) {
        ::close(*one);
        delete one;
    });
}

QByteArray pathOf(const QByteArray &record)
{
    return QFile::encodeName(Global::dataDir().absoluteFilePath(QFile::decodeName(record)));
}

/// @param join what makes the path the socket's: ::bind or ::connect
/// @return null and errno
Descriptor socketAt(const QByteArray &path, int (*join)(int, const sockaddr *, socklen_t))
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.contains('\0') || path.size() >= int(sizeof address.sun_path)) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    std::copy(path.cbegin(), path.cend(), address.sun_path);
    const Descriptor made = owned(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const bool isJoined =
        made && join(*made, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    return isJoined ? made : nullptr;
}

class CUnixChannel : public CChannel
{
public:
    CUnixChannel(Descriptor connected, Descriptor epoll, CChannelMonitor *counter, int handle)
        : socket(std::move(connected)), changes(std::move(epoll)), waker(*changes, QSocketNotifier::Read),
          monitor(counter), monitorHandle(handle)
    {
        kind = unixKind;
        // Each change wakes the protocol once: bytes that it leaves unread must not wake it all the time.
        epoll_event each = {EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET, {}};
        ::epoll_ctl(*changes, EPOLL_CTL_ADD, *socket, &each);
        QObject::connect(&waker, &QSocketNotifier::activated, [this] {
            epoll_event taken = {};
            ::epoll_wait(*changes, &taken, 1, 0);
        });
    }
    void disconnectFromAbonent() override { ::shutdown(*socket, SHUT_RDWR); }
    bool isConnected() override { return found(POLLRDHUP) == 0; }
    void write(const QByteArray &data) override
    {
        monitor->addSent(monitorHandle, data.size());
        const QDeadlineTimer limit(CSettings().detailsMaxWritingTime());
        for (int done = 0; done < data.size();) {
            const auto sent =
                ::send(*socket, data.constData() + done, size_t(data.size() - done), MSG_NOSIGNAL);
            if (sent > 0)
                done += int(sent);
            else if (errno != EAGAIN || found(POLLOUT, int(limit.remainingTime())) != POLLOUT)
                return disconnectFromAbonent(); // it has gone, or does not read
        }
    }
    QByteArray read(int maxSize) override
    {
        QByteArray bytes(qBound(0, maxSize, blockSize), Qt::Uninitialized);
        const auto size = ::recv(*socket, bytes.data(), size_t(bytes.size()), 0);
        bytes.truncate(int(qMax<ssize_t>(size, 0)));
        if (!bytes.isEmpty())
            monitor->addReceived(monitorHandle, bytes.size());
        return bytes;
    }
    int idealBlockSize() override { return found(POLLOUT) != 0 ? blockSize : 0; }

private:
    /// @return the events that hold, of those wanted and the end; 0 when none comes in time
    short found(short wanted, int ms = 0) const
    {
        pollfd one = {*socket, wanted, 0};
        return ::poll(&one, 1, ms) > 0 ? one.revents : short(0);
    }

    const Descriptor socket;
    const Descriptor changes; // tells each once
    QSocketNotifier waker;
    CChannelMonitor *const monitor;
    const int monitorHandle;
};

class CUnixServer : public CThreadedServer
{
public:
    CUnixServer() : CThreadedServer(unixKind, QStringLiteral("UNIX-сокет")) {}

    void connectToAbonent(const QString &name, const QByteArray &abonentsData) override
    {
        call(name,
             [=](int handle) { return channelOver(socketAt(pathOf(abonentsData), ::connect), handle); });
    }

protected:
    QString listen() override
    {
        const QByteArray path = pathOf(ownName);
        Global::makePath(Global::dataDir());
        ::unlink(path.constData()); // left by a process that was killed
        listener = socketAt(path, ::bind);
        if (!listener || ::listen(*listener, SOMAXCONN) != 0)
            return QStringLiteral("Не удалось принимать вызовы. %1").arg(qt_error_string(errno));
        callers = std::make_unique<QSocketNotifier>(*listener, QSocketNotifier::Read);
        connect(callers.get(), &QSocketNotifier::activated, this, [this] { accept(); });
        return QString();
    }
    void stopListening() override
    {
        callers.reset();
        listener.reset();
        ::unlink(pathOf(ownName).constData());
    }

private:
    std::unique_ptr<CChannel> channelOver(const Descriptor &socket, int handle) const
    {
        const Descriptor epoll = socket ? owned(::epoll_create1(EPOLL_CLOEXEC)) : nullptr;
        return epoll ? std::make_unique<CUnixChannel>(socket, epoll, monitor, handle) : nullptr;
    }
    void accept()
    {
        const Descriptor caller = owned(::accept4(*listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (caller)
            return answer([=](int handle) { return channelOver(caller, handle); });
        callers->setEnabled(false); // descriptors are short, say
        QTimer::singleShot(500, callers.get(), [this] { callers->setEnabled(true); });
    }

    Descriptor listener;
    std::unique_ptr<QSocketNotifier> callers;
};

class CUnixPlugin : public CChannelPlugin
{
public:
    int type() const override { return unixKind; }
    QString name() const override { return QStringLiteral("UNIX-сокет"); }
    CChannelServer *create() const override { return new CUnixServer; }
    void incCallTimeout(int *timeout) const override { *timeout = qBound(1, *timeout, 59) + 1; }
    void decCallTimeout(int *timeout) const override { *timeout = qBound(2, *timeout, 60) - 1; }
};

} // namespace

extern "C" {

RUNTIME_EXPORT int apiVersion()
{
    return channelApiVersion;
}
RUNTIME_EXPORT void initDebug(DebugData *data)
{
    LoggerData::initDebug(data);
}
RUNTIME_EXPORT CChannelPlugin *instance()
{
    return new CUnixPlugin;
}
RUNTIME_EXPORT void deleteInstance(CChannelPlugin *plugin)
{
    delete plugin;
}
}
