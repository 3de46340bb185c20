#include "tests/fire/firehost.h"

#include "common/csettings.h"
#include "common/debugdata.h"
#include "common/functiontrace.h"
#include "common/logwriter.h"
#include "host/cchannellibrary.h"
#include "tests/support/fakehost.h"
#include "tests/support/testinstallation.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QSocketNotifier>
#include <QTest>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <sys/resource.h>
#include <unistd.h>

namespace {

/// What stragglers count too, which may outlive everything.
struct Counter
{
    std::atomic<int> acceptErrors{0}, protocols{0};
    std::atomic<bool> isKillingAnnounced{false};
    std::atomic<int> killedUnannounced{0};
};

Counter &counter = *new Counter;

/// A host that remembered everything would hide what the plug-in needs.
void countText(const QString &text)
{
    counter.acceptErrors += text.contains(QStringLiteral(": Ошибка приема входящего соединения"));
}

void sleepForEver()
{
    struct AtTheEnd
    {
        ~AtTheEnd() { counter.killedUnannounced += !counter.isKillingAnnounced; }
    } const atTheEnd;
    for (;;)
        QThread::sleep(1);
}

void spinForEver()
{
    for (volatile bool ever = true; ever;)
        ;
}

void lockTwice()
{
    static QMutex &mutex = *new QMutex;
    mutex.lock();
    mutex.lock();
}

void logForEver()
{
    for (int round = 0;; ++round) {
        TRACE_FUNCTION;
        const _CFunctionMeasure measure("straggler", true);
        debug(QStringLiteral("straggler"), QStringLiteral("line"), DebugAlways, DebugFlagFileOnly);
        if (round % 32 == 0)
            CSettings().write(QStringLiteral("X/y"), round);
    }
}

void prepare(ScriptedProtocol *protocol, const QByteArray &script)
{
    ++counter.protocols;
    protocol->onDelete = [](ScriptedProtocol *p) {
        --counter.protocols;
        p->finished(); // once more than wanted
    };
    if (script == "endingAtOnce")
        protocol->onStart = [](ScriptedProtocol *p) { p->finished(); };
    if (script == "named")
        protocol->onStart = [](ScriptedProtocol *p) { p->announce(p->label); };
    static const QMap<QByteArray, void (*)()> stragglers{{"sleeping", sleepForEver},
                                                         {"spinning", spinForEver},
                                                         {"locked", lockTwice},
                                                         {"logging", logForEver}};
    if (const auto act = stragglers.value(script)) {
        protocol->onStop = [](ScriptedProtocol *) {};
        protocol->onAwake = [act](ScriptedProtocol *) { act(); };
    }
    const auto block = [](ScriptedProtocol *) { lockTwice(); };
    if (script == "blockingStart")
        protocol->onStart = block;
    if (script == "blockingDelete")
        protocol->onDelete = block;
}

/// A number out of a file of /proc/self.
int numberIn(const char *file, const char *name)
{
    const QByteArray text = TestInstallation::read(QStringLiteral("/proc/self/") + QLatin1String(file));
    return std::atoi(text.constData() + text.indexOf(name) + std::strlen(name));
}

/// As long-lived as stragglers. Only the first server's.
FakeHost &longLived(CChannelServer *server)
{
    static FakeHost *const host = new FakeHost(server);
    return *host;
}

/// Slots of the log that a thread has.
qint64 usedSlots()
{
    DebugData *const shared = LoggerData::debugData();
    const QMutexLocker locker(&shared->mutex);
    const auto isUsed = [](const Tabulation &slot) { return slot.thread != nullptr; };
    return std::count_if(shared->tabulations.cbegin(), shared->tabulations.cend(), isUsed);
}

class FireHost
{
public:
    explicit FireHost(CChannelServer *equippedServer) : server(equippedServer)
    {
        ::getrlimit(RLIMIT_NOFILE, &descriptorLimit);
        host.listener = countText;
        host.factory->script = [this](ScriptedProtocol *protocol) { prepare(protocol, script); };
    }

    QByteArray run(const QList<QByteArray> &words)
    {
        const QByteArray verb = words.value(0);
        const QString text = QString::fromUtf8(words.value(1));
        if (verb == "start")
            server->start();
        else if (verb == "settings")
            server->settingsWasChanged();
        else if (verb == "keep")
            server->keepAliveConnection(words.value(1).toInt());
        else if (verb == "call")
            server->connectToAbonent(text, QByteArray::fromHex(words.value(2)));
        else if (verb == "disconnect")
            server->disconnectFromAbonent(text, words.value(2).toInt());
        else if (verb == "log")
            debug(QStringLiteral("FireHost"), text, DebugAlways, DebugFlagFileOnly);
        else if (verb == "script")
            host.factory->refuses = (script = words.value(1)) == "refusing";
        else if (verb == "limit")
            setLimit(words.value(1), words.value(2).toInt());
        else if (verb == "stop")
            return stop(words.value(1).toInt());
        else if (verb == "stats")
            return stats();
        return "ok";
    }

private:
    QByteArray stop(int times)
    {
        QSignalSpy finished(server, &CChannelServer::finished);
        QElapsedTimer clock;
        clock.start();
        for (int i = 0; i < times; ++i)
            server->stop();
        const bool isAnswered = QTest::qWaitFor([&] { return finished.size() >= times; }, 50000);
        const QByteArray ms = QByteArray::number(clock.elapsed());
        QCoreApplication::processEvents(); // one too many would come now
        return ms + ' ' + QByteArray::number(isAnswered ? finished.size() : 0);
    }

    void setLimit(const QByteArray &what, int more)
    {
        rlimit descriptors = descriptorLimit;
        rlimit memory = {RLIM_INFINITY, RLIM_INFINITY};
        if (what == "descriptors") {
            const int next = ::dup(0);
            ::close(next);
            descriptors.rlim_cur = rlim_t(next + more);
        } else if (what == "memory") {
            memory.rlim_cur = rlim_t(numberIn("status", "VmSize:") + more) * 1024;
        }
        ::setrlimit(RLIMIT_NOFILE, &descriptors);
        ::setrlimit(RLIMIT_AS, &memory);
    }

    QByteArray stats() const
    {
        const auto files = QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::AllEntries | QDir::System);
        const std::pair<const char *, qint64> numbers[] = {
            {"descriptors", files.size()},
            {"threads", numberIn("status", "Threads:")},
            {"resident", numberIn("smaps_rollup", "Rss:")},
            {"slots", usedSlots()},
            {"shown", host.shown},
            {"protocols", counter.protocols},
            {"made", host.factory->made},
            {"acceptErrors", counter.acceptErrors},
            {"killedUnannounced", counter.killedUnannounced},
            {"cpu", qint64(::clock()) * 1000 / CLOCKS_PER_SEC}};
        QByteArray text;
        for (const auto &number : numbers)
            text += QByteArray(number.first) + '=' + QByteArray::number(number.second) + ' ';
        return text;
    }

    CChannelServer *server;
    FakeHost &host = longLived(server);
    QByteArray script; // changed only while no connection is being set up
    rlimit descriptorLimit = {};
};

} // namespace

int runFireHost(int &argc, char **argv, const char *plugin)
{
    const QCoreApplication application(argc, argv);
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &text) {
        if (text.contains(QStringLiteral("будет убиты")))
            counter.isKillingAnnounced = true;
        if (type == QtFatalMsg) // not the log's echo, nor what Qt says of each want
            std::fprintf(stderr, "%s\n", text.toUtf8().constData());
    });
    LoggerData::initDebug(nullptr);
    CChannelLibrary library;
    const QString error = library.load(QString::fromUtf8(plugin));
    if (!error.isNull()) {
        std::fprintf(stderr, "%s\n", error.toUtf8().constData());
        return 1;
    }
    const std::unique_ptr<CChannelServer> server(library.plugin()->create());
    FireHost host(server.get());
    QByteArray input;
    QSocketNotifier commands(0, QSocketNotifier::Read);
    QObject::connect(&commands, &QSocketNotifier::activated, &commands, [&] {
        char bytes[4096];
        const ssize_t count = ::read(0, bytes, sizeof bytes);
        if (count <= 0)
            return QCoreApplication::quit();
        input.append(bytes, int(count));
        for (int end = input.indexOf('\n'); end >= 0; end = input.indexOf('\n')) {
            const QByteArray line = input.left(end);
            input.remove(0, end + 1);
            std::printf("%s\n", host.run(line.split(' ')).constData());
            std::fflush(stdout);
        }
    });
    return QCoreApplication::exec();
}
