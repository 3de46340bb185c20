// A small host: loads a channel, calls itself through it, exchanges names, and ends in order.
//   smallhost CHANNEL.so [PORT]
// It says what it sees. Exit code 0: both ends of the call were told; 1: not; 2: no channel for this host.
#include "common/logger.h"
#include "interfaces/cabstractprotocol.h"
#include "interfaces/cchannelserver.h"
#include "interfaces/pluginentry.h"
#include "transportIp/ipsettings.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QLibrary>

#include <cstdio>
#include <utility>

// Each side sends its name as a line; the caller begins and, having read the answer, ends.
struct Protocol : CAbstractProtocol
{
    explicit Protocol(CChannel *ownedChannel) : CAbstractProtocol(ownedChannel) {}
    void start() override
    {
        CAbstractProtocol::start();
        isCaller = !remoteAbonentName.isEmpty();
        if (isCaller)
            channel->write("Анна\n");
        connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake, this,
                [this] { look(); });
    }
    void stop() override // from any thread: only leaves word
    {
        QMetaObject::invokeMethod(this, &Protocol::end, Qt::QueuedConnection);
    }
    void look()
    {
        line += channel->read(100 - line.size());
        if (line.endsWith('\n') && !wasUseful) {
            wasUseful = true;
            remoteAbonentName = QString::fromUtf8(line).trimmed();
            Q_EMIT remoteAbonentNameChanged(remoteAbonentName);
            isCaller ? channel->disconnectFromAbonent() : channel->write("Борис\n");
        }
        if (!channel->isConnected())
            end();
    }
    void end() // once, whoever wants it
    {
        if (!std::exchange(isEnded, true))
            Q_EMIT finished();
    }
    bool isCaller = false;
    bool isEnded = false;
    QByteArray line;
};
struct Factory : CProtocolFactory
{
    CAbstractProtocol *createProtocol(CChannel *channel) override { return new Protocol(channel); }
};
struct Monitor : CChannelMonitor // shows nothing
{
    int addConnection(int, const QString &, const QString &) override { return 1; }
    void removeConnection(int) override {}
    void setState(int, const QString &) override {}
    void addReceived(int, int) override {}
    void addSent(int, int) override {}
};
struct Journal : CJournal
{
    void addRecord(int, const QString &source, const QString &text) override
    {
        std::printf("%s: %s\n", qUtf8Printable(source), qUtf8Printable(text));
    }
};

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    QLibrary library(QString::fromLocal8Bit(argc > 1 ? argv[1] : ""));
    const auto apiVersion = reinterpret_cast<ApiVersionFunction>(library.resolve(apiVersionSymbol));
    if (!apiVersion || apiVersion() != channelApiVersion) {
        std::fprintf(stderr, "No channel for version %d: %s\n", channelApiVersion,
                     apiVersion ? "made for another" : qPrintable(library.errorString()));
        return 2;
    }
    LoggerData::initDebug(nullptr);
    reinterpret_cast<InitDebugFunction>(library.resolve(initDebugSymbol))(LoggerData::debugData());
    CChannelPlugin *plugin = reinterpret_cast<InstanceFunction>(library.resolve(instanceSymbol))();

    Monitor monitor;
    Journal journal;
    CChannelServer *server = plugin->create();
    server->protocolFactory = new Factory; // the server's from now on
    server->monitor = &monitor;
    server->journal = &journal;
    int toEnd = 2; // both ends of the call are ours
    QObject::connect(server, &CChannelServer::disconnected, &application,
                     [&] { --toEnd ? void() : server->stop(); });
    QObject::connect(server, &CChannelServer::notConnected, server, [&] { server->stop(); });
    QObject::connect(server, &CChannelServer::finished, &application, &QCoreApplication::quit);
    server->start();

    AbonentIpSettings abonent;
    abonent.address = QStringLiteral("127.0.0.1");
    abonent.port = argc > 2 ? QByteArray(argv[2]).toInt() : abonent.port;
    server->connectToAbonent(QStringLiteral("Борис"), abonent.toByteArray());
    application.exec();
    delete server;
    reinterpret_cast<DeleteInstanceFunction>(library.resolve(deleteInstanceSymbol))(plugin);
    std::printf("Ends of the call that were not told: %d\n", toEnd);
    return toEnd == 0 ? 0 : 1;
}
