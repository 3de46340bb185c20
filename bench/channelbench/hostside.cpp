#include "bench/channelbench/hostside.h"

#include "common/directorylayout.h"
#include "common/filepermissions.h"
#include "transportIp/ipsettings.h"

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QTcpServer>

#include <cstdio>
#include <cstdlib>

namespace {

class CFactory : public CProtocolFactory
{
public:
    explicit CFactory(MakeProtocol makeProtocol) : make(std::move(makeProtocol)) {}
    CAbstractProtocol *createProtocol(CChannel *channel) override { return make(channel); }

private:
    const MakeProtocol make;
};

int freePort()
{
    QTcpServer listener;
    return listener.listen(QHostAddress::AnyIPv4) ? listener.serverPort() : 0;
}

bool writeSettings(int port, int blockSizeKb)
{
    ChannelIpSettings settings;
    settings.maxConnections = 1000000;
    settings.port = port;
    settings.blockSizeKb = blockSizeKb;
    const QByteArray record = settings.toByteArray();
    QFile file(Global::channelIpSettingsFilePath());
    return Global::makePath(Global::settingsDir()) && file.open(QIODevice::WriteOnly) &&
           file.write(record) == record.size();
}

} // namespace

int CCountingMonitor::addConnection(int, const QString &, const QString &)
{
    return ++lastHandle;
}

void CCountingMonitor::removeConnection(int) {}

void CCountingMonitor::setState(int handle, const QString &text)
{
    if (handle == channelHandle)
        channelWorks = text == QStringLiteral("Работает");
}

void CCountingMonitor::addReceived(int handle, int bytes)
{
    countOf(handle).received.fetch_add(bytes, std::memory_order_relaxed);
}

void CCountingMonitor::addSent(int handle, int bytes)
{
    countOf(handle).sent.fetch_add(bytes, std::memory_order_relaxed);
}

void CCountingJournal::addRecord(int, const QString &, const QString &)
{
    records.fetch_add(1, std::memory_order_relaxed);
}

CStation::CStation(const QString &pluginPath)
{
    const QString error = library.load(pluginPath);
    if (error.isNull())
        return;
    std::fprintf(stderr, "channelbench: %s\n", qUtf8Printable(error));
    std::exit(1);
}

CStation::~CStation()
{
    stop();
}

int CStation::start(int blockSizeKb, const MakeProtocol &makeProtocol)
{
    constexpr int tries = 20;
    for (int attempt = 0; attempt < tries; ++attempt) {
        const int port = freePort();
        if (listen(port, blockSizeKb, makeProtocol))
            return port;
        stop();
    }
    return 0;
}

bool CStation::listen(int port, int blockSizeKb, const MakeProtocol &makeProtocol)
{
    if (!writeSettings(port, blockSizeKb))
        return false;
    channelServer.reset(library.plugin()->create());
    channelServer->monitorHandle = CCountingMonitor::channelHandle;
    channelServer->protocolFactory = new CFactory(makeProtocol); // the server's from now on
    channelServer->monitor = &monitor;
    channelServer->journal = &journal;
    channelServer->start();
    return monitor.works();
}

void CStation::stop()
{
    if (!channelServer)
        return;
    QEventLoop untilFinished;
    QObject::connect(channelServer.get(), SIGNAL(finished()), &untilFinished, SLOT(quit()));
    channelServer->stop();
    untilFinished.exec();
    channelServer.reset();
}
