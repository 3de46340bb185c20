// `channelbench` plays the host of the channel plug-in for whoever drives load at it:
//
//   echo                    sends everything back, until the standard input ends
//   hello                   takes 32 bytes on each connection, answers 32 and closes
//   sink BLOCK              takes one connection to its end and prints "DONE bytes seconds cpu_seconds"
//   source PORT BLOCK MS    calls 127.0.0.1:PORT, writes for MS milliseconds and prints "CPU cpu_seconds"
//   rows d|e|f|g DIR        measures the runtime: log, saving (leaves DIR/target), small operations, growth
//
// Servers print "PORT n" when they listen. CHANNELBENCH_QUIET=1 switches log category 7 off.
#include "bench/channelbench/hostside.h"
#include "bench/channelbench/installation.h"
#include "bench/channelbench/protocols.h"
#include "bench/channelbench/rows.h"

#include "bench/support/measure.h"
#include "common/csettings.h"
#include "common/debugdata.h"
#include "common/logwriter.h"
#include "transportIp/ipsettings.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QSocketNotifier>

#include <atomic>
#include <cstdio>
#include <string>
#include <unistd.h>

namespace {

constexpr int defaultBlockKb = 64;

/// Starts the station, says where it listens and runs until quit.
int serve(CStation &station, int blockSizeKb, const MakeProtocol &makeProtocol)
{
    const int port = station.start(blockSizeKb, makeProtocol);
    if (port == 0) {
        std::fprintf(stderr, "channelbench: no port to listen on\n");
        return 1;
    }
    std::printf("PORT %d\n", port);
    std::fflush(stdout);
    const int result = QCoreApplication::exec();
    station.stop();
    return result;
}

template <typename Protocol>
int serveUntilInputEnds(CStation &station)
{
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &input, [] {
        char buffer[256];
        if (read(STDIN_FILENO, buffer, sizeof buffer) <= 0)
            QCoreApplication::quit();
    });
    return serve(station, defaultBlockKb, [](CChannel *channel) { return new Protocol(channel); });
}

int sink(CStation &station, int block)
{
    qint64 total = 0;
    double began = 0;
    double cpuBegan = 0;
    const auto took = [&](int bytes) { // by the connection's thread alone
        if (total == 0) {
            began = Measure::now();
            cpuBegan = Measure::cpu();
        }
        total += bytes;
    };
    const auto report = [&] {
        std::printf("DONE %lld %.6f %.6f\n", total, Measure::now() - began, Measure::cpu() - cpuBegan);
        std::fflush(stdout);
        QCoreApplication::quit();
    };
    return serve(station, block / 1024, [&](CChannel *channel) {
        auto *protocol = new CSinkProtocol(channel, block, took);
        QObject::connect(protocol, &CAbstractProtocol::finished, report);
        return protocol;
    });
}

int source(CStation &station, int port, int block, int milliseconds)
{
    double end = 0;
    double cpuBegan = 0;
    const auto enough = [&] { // by the connection's thread alone
        if (end == 0) {
            end = Measure::now() + milliseconds * 1e-3;
            cpuBegan = Measure::cpu();
        }
        return Measure::now() >= end;
    };
    const auto report = [&] {
        std::printf("CPU %.6f\n", Measure::cpu() - cpuBegan);
        std::fflush(stdout);
        QCoreApplication::quit();
    };
    const int ownPort = station.start(block / 1024, [&](CChannel *channel) {
        auto *protocol = new CSourceProtocol(channel, block, enough);
        QObject::connect(protocol, &CAbstractProtocol::finished, report);
        return protocol;
    });
    if (ownPort == 0)
        return 1;

    // The loop's answer to a call that did not get through is an exit code.
    QObject::connect(&station.server(), &CChannelServer::notConnected, QCoreApplication::instance(),
                     [] { QCoreApplication::exit(1); });
    AbonentIpSettings abonent;
    abonent.address = QStringLiteral("127.0.0.1");
    abonent.port = port;
    station.server().connectToAbonent(QStringLiteral("sink"), abonent.toByteArray());
    const int result = QCoreApplication::exec();
    station.stop();
    return result;
}

int rows(const std::string &area)
{
    const QString directory = QFile::decodeName(Installation::directory().c_str());
    if (area == "d")
        Rows::log();
    else if (area == "e") // not in the fresh installation, where no disk block has ever been used
        Rows::saving(QFileInfo(directory).path());
    else if (area == "f")
        Rows::small();
    else
        Rows::growth(directory);
    return 0;
}

/// The host's side of the Qt message stream: the log's echo is only counted, as monitor and journal do.
void takeMessage(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    static std::atomic<int> echoes{0};
    if (type == QtDebugMsg)
        echoes.fetch_add(1, std::memory_order_relaxed);
    else
        std::fprintf(stderr, "%s\n", qPrintable(text));
}

/// Makes the fresh installation one that has been in use: the settings hold every key that a connection
/// asks for, the log has its head. Both are written once in an installation's life or day.
void breakIn()
{
    CSettings settings;
    if (!qEnvironmentVariableIsEmpty("CHANNELBENCH_QUIET"))
        settings.write(QStringLiteral("Debug/transportConnects"), false);
    Measure::keep(settings.debugAll() + settings.debugTransportConnects() +
                  settings.debugTransportIpSocketError());
    Measure::keep(settings.detailsMaxWritingTime() + settings.detailsTransportIpConnectTimeout());
    Measure::keep(settings.detailsTransportIpThreadStartTimeout() +
                  settings.detailsTransportServerThreadStopTimeout());
    debug(QStringLiteral("channelbench"), QStringLiteral("A run begins"), DebugAlways, DebugFlagFileOnly);
}

int run(const QStringList &arguments)
{
    const QString role = arguments.value(1);
    if (role == QStringLiteral("rows"))
        return rows(arguments.value(2).toStdString());

    CStation station(QFile::decodeName(Installation::pluginPath().c_str()));
    if (role == QStringLiteral("echo"))
        return serveUntilInputEnds<CEchoProtocol>(station);
    if (role == QStringLiteral("hello"))
        return serveUntilInputEnds<CHelloProtocol>(station);
    if (role == QStringLiteral("sink"))
        return sink(station, arguments.value(2).toInt());
    return source(station, arguments.value(2).toInt(), arguments.value(3).toInt(),
                  arguments.value(4).toInt());
}

/// Whether role and number of arguments fit; @a parent becomes the place for files, if any is named.
bool understood(int count, char **arguments, std::string *parent)
{
    const std::string role = count > 1 ? arguments[1] : "";
    if (role == "rows" && count == 4 && std::string("defg").find(arguments[2]) != std::string::npos) {
        *parent = arguments[3];
        return true;
    }
    return ((role == "echo" || role == "hello") && count == 2) || (role == "sink" && count == 3) ||
           (role == "source" && count == 5);
}

} // namespace

int main(int argc, char **argv)
{
    std::string parent;
    if (!understood(argc, argv, &parent)) {
        std::fprintf(stderr, "usage: channelbench echo | hello | sink BLOCK | source PORT BLOCK MS | "
                             "rows d|e|f|g DIR\n");
        return 2;
    }
    if (!Installation::enter(argv, parent))
        return 1;
    qInstallMessageHandler(takeMessage);
    int result = 0;
    {
        const QCoreApplication application(argc, argv);
        LoggerData::initDebug(nullptr);
        breakIn();
        result = run(QCoreApplication::arguments());
    }
    Installation::leave();
    return result;
}
