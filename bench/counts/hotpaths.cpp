// The operations that stand in everybody's way, each called the same number of times in the function
// measured(), which is all that the counting tool looks at. One case per run: hotpaths CASE
#include "common/functiontrace.h"
#include "common/logwriter.h"
#include "interfaces/cchannelmonitor.h"
#include "transportIp/cipchannel.h"
#include "transportIp/cipsocket.h"
#include "transportIp/ipsettings.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QTcpServer>
#include <QThread>

#include <cstdio>
#include <functional>
#include <map>

using Operation = std::function<void()>;

/// Called once per counted operation. With C linkage, so that its name is the same for every compiler.
extern "C" __attribute__((noinline, used)) void measured(const Operation *operation)
{
    (*operation)();
}

namespace {

constexpr int warmUp = 20; // calls before the first that counts
constexpr int calls = 200; // counts.sh divides by this number
const Operation nothing = [] {};

void run(const Operation &before, const Operation &operation)
{
    for (int i = 0; i < warmUp + calls; ++i) {
        before();
        if (i < warmUp)
            operation();
        else
            measured(&operation);
    }
}

class CIdleMonitor : public CChannelMonitor
{
public:
    int addConnection(int, const QString &, const QString &) override { return 1; }
    void removeConnection(int) override {}
    void setState(int, const QString &) override {}
    void addReceived(int, int) override {}
    void addSent(int, int) override {}
};

/// A channel and the plain socket at its other end.
class CPair
{
public:
    CPair()
    {
        listener.listen(QHostAddress::LocalHost);
        socket->connectToHost(QHostAddress(QHostAddress::LocalHost), listener.serverPort());
        socket->waitForConnected();
        socket->tune();
        listener.waitForNewConnection(5000);
        other = listener.nextPendingConnection();
        if (!other)
            qFatal("no connection over the loopback address");
    }

    /// Lets everything that was written arrive.
    void settle()
    {
        while (socket->bytesToWrite() > 0 || other->bytesToWrite() > 0)
            QCoreApplication::processEvents();
        QCoreApplication::processEvents();
        other->readAll();
    }

    QTcpServer listener;
    CIdleMonitor monitor;
    CIpSocket *const socket = new CIpSocket; // the channel's
    CIpChannel channel{socket, 1, &monitor};
    QTcpSocket *other = nullptr; // the listener's
};

void channelWrite()
{
    CPair pair;
    const QByteArray block(1024, 'x');
    run([&] { pair.settle(); }, [&] { pair.channel.write(block); });
}

void channelRead()
{
    CPair pair;
    const QByteArray block(1024, 'x');
    const auto sendOne = [&] {
        pair.settle();
        pair.other->write(block);
        pair.other->flush();
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    };
    run(sendOne, [&] { pair.channel.read(block.size()); });
}

void logCall(DebugLevel level)
{
    const QString source = QStringLiteral("CIpThread");
    const QString text =
        QStringLiteral("A record of seventy-two bytes, as long as most of those that are written");
    debug(source, text, level, DebugFlagFileOnly); // fills the settings in, whose file is looked at closely
    QThread::msleep(100);                          // while it is that young
    run(nothing, [&] { debug(source, text, level, DebugFlagFileOnly); });
}

void traceScope()
{
    run(nothing, [] { TRACE_FUNCTION; });
}

void recordParsing()
{
    AbonentIpSettings settings;
    settings.address = QStringLiteral("192.168.100.200");
    const QByteArray record = settings.toByteArray();
    run(nothing, [&] { AbonentIpSettings().fromByteArray(record); });
}

const std::map<std::string, Operation> cases = {
    {"log-record", [] { logCall(DebugAlways); }},
    {"filtered-out-call", [] { logCall(DebugIpcData); }},
    {"trace-scope", traceScope},
    {"channel-write", channelWrite},
    {"channel-read", channelRead},
    {"record-parsing", recordParsing},
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication::setEventDispatcher(new CConnectionDispatcher); // as a worker's
    const QCoreApplication application(argc, argv);
    const auto found = cases.find(argc > 1 ? argv[1] : "");
    if (found == cases.end()) {
        for (const auto &one : cases)
            std::printf("%s\n", one.first.c_str());
        return 2;
    }
    found->second();
    return 0;
}
