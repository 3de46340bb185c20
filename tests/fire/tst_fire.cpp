// The network side under fire: many, silent, slow, greedy, deaf and killed peers, want of everything,
// and stops at the worst moments. A row per fault. The peers run here in one thread, the server under
// test in a process of its own: the built plug-in in a small host (firehost), or `abonent`.
//
// The figures are printed. IPCHANNEL_LONG=1 runs the long forms, IPCHANNEL_SEED=n repeats a random run.
#include "host/delivery/cidentity.h"
#include "host/delivery/ctlssession.h"
#include "tests/fire/childprocess.h"
#include "tests/fire/eventloop.h"
#include "tests/fire/firehost.h"
#include "tests/fire/load.h"
#include "tests/support/fakehost.h"
#include "tests/support/testinstallation.h"
#include "transportIp/ipsettings.h"

#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <cstdio>
#include <random>

#include <sched.h>
#include <sys/resource.h>

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool isSanitized = true; // memory is not the product's own then
#else
constexpr bool isSanitized = false;
#endif

constexpr int inTimeMs = 30000; // whatever the machine has to do besides; figures are printed
const bool isLong = qEnvironmentVariableIsSet("IPCHANNEL_LONG");
bool isNetworkOurs = false;
const char silentAddress[] = "198.18.0.1"; // in our network nobody answers there

/// A network of our own: the kernel's counters are ours alone, and one route leads nowhere.
bool makeNetwork()
{
    return ::unshare(CLONE_NEWNET) == 0 &&
           std::system("ip link set lo up && ip route add 198.18.0.0/24 dev lo") == 0;
}

/// Connection requests that the kernel has dropped.
qint64 droppedRequests()
{
    const QList<QByteArray> lines = TestInstallation::read("/proc/net/netstat"_s).split('\n');
    const QList<QByteArray> names = lines[0].split(' ');
    const QList<QByteArray> values = lines[1].split(' ');
    return values[names.indexOf("ListenOverflows")].toLongLong() +
           values[names.indexOf("ListenDrops")].toLongLong();
}

QByteArray recordFor(const char *address, int port)
{
    return AbonentIpSettings{QString::fromLatin1(address), port}.toByteArray().toHex();
}

} // namespace

class TestFire : public QObject
{
    Q_OBJECT

private:
    using Figures = QMap<QByteArray, double>;

    int port = 0;
    std::unique_ptr<ChildProcess> server;
    std::unique_ptr<QTemporaryDir> directory; // of an `abonent`
    CIdentity identity;                       // of callers who begin TLS
    std::mt19937 random;

    int chance(int in) { return int(random() % unsigned(in)); }
    void tell(const QByteArray &command) { QCOMPARE(server->ask(command), QByteArray("ok")); }
    bool waitFor(const std::function<bool()> &condition) { return runLoop(inTimeMs, condition); }

    void configure(const QString &installation, int newPort, int blockSizeKb = 64)
    {
        QVERIFY(TestInstallation::write(installation + "/settings/channelIp.conf"_s,
                                        ChannelIpSettings{true, 10, newPort, blockSizeKb}.toByteArray()));
    }

    /// Starts the host around the plug-in. When warm, it has served: what is made once is there.
    void begin(const QByteArray &settings = {}, int descriptors = 0, bool isWarm = true)
    {
        directory.reset();
        TestInstallation::clean();
        QVERIFY(TestInstallation::writeSettings(settings));
        configure(TestInstallation::path(), port = freePort());
        server = std::make_unique<ChildProcess>(QCoreApplication::applicationFilePath(),
                                                QStringList{"--host"_s}, descriptors);
        tell("start");
        QVERIFY2(!isWarm || serves(), "a host that has just begun serves");
    }

    /// Starts an `abonent` in an installation of its own.
    void beginAbonent(int descriptors = 0)
    {
        directory = std::make_unique<QTemporaryDir>();
        QDir(directory->path()).mkpath("bin/channelPlugins"_s);
        const QString program = directory->filePath("bin/abonent"_s);
        QVERIFY(QFile::copy(QString::fromUtf8(ABONENT_FILE), program));
        QVERIFY(QFile::copy(QString::fromUtf8(CHANNEL_FILE),
                            directory->filePath("bin/channelPlugins/libtransportIp.so"_s)));
        configure(directory->path(), port = freePort());
        server = std::make_unique<ChildProcess>(program, QStringList{"listen"_s, "--name"_s, "fire"_s},
                                                descriptors);
        QVERIFY(server->sees("порту"));
    }

    QByteArray log() const
    {
        const QDir logs((directory ? directory->path() : TestInstallation::path()) + "/data/0/log"_s);
        return TestInstallation::read(logs.absoluteFilePath(logs.entryList(QDir::Files).value(0)));
    }

    LoadPlan silent(int slots_) const
    {
        LoadPlan plan;
        plan.port = port;
        plan.slots_ = slots_;
        return plan;
    }

    /// Clients that talk with the echo.
    LoadPlan talkers(int slots_, int bytes, int periodMs) const
    {
        LoadPlan plan = silent(slots_);
        plan.periodMs = periodMs;
        plan.request = QByteArray(bytes, 'x');
        return plan;
    }

    /// Callers of an `abonent` who begin TLS and leave it at that.
    LoadPlan halfSecured(int slots_) const
    {
        LoadPlan plan = silent(slots_);
        plan.opening = [hello = CTlsSession(CTlsSession::Calling, identity).takeOutgoing(65536)](int) {
            return hello;
        };
        plan.openingAnswer = 1;
        return plan;
    }

    /// @return whether a new connection is served: heard, or answered in the handshake
    bool serves()
    {
        Load load(directory ? halfSecured(1) : talkers(1, 16, 0));
        return waitFor([&] { return load.rounds > 0 || load.opened > 0; });
    }

    /// @return null when the server soon has no more than before of what connections take, else what it has
    QByteArray leftOver(Figures before)
    {
        before["descriptors"] += 2; // the log's directory is watched from some moment on, by each module
        for (const char *what : {"shown", "protocols", "threads", "descriptors"}) {
            if (!waitFor([&] { return server->stats()[what] <= before[what]; }))
                return what + (" before: " + QByteArray::number(before[what])) +
                       " now: " + QByteArray::number(server->stats()[what]);
        }
        return {};
    }

    /// stop() called @a times. @return ms until all were answered, or -1 when not by as many finished()
    int stop(int times = 1)
    {
        const QList<QByteArray> answer = server->ask("stop " + QByteArray::number(times)).split(' ');
        return answer.value(1).toInt() == times ? answer[0].toInt() : -1;
    }

    void flood(bool isAbonent)
    {
        constexpr int callers = 5000;
        isAbonent ? beginAbonent(1024) : begin({}, 1024);
        std::unique_ptr<Load> early; // who was served before goes on being served
        if (!isAbonent) {
            early = std::make_unique<Load>(talkers(1, 1024, 10));
            QVERIFY2(waitFor([&] { return early->rounds > 0; }), "the first caller is answered");
        }
        const qint64 begun = nowUs();
        Load flood(silent(callers));
        const int most = isAbonent ? 64 : (1024 - 64) / 2; // of one address; all there is room for
        QVERIFY2(waitFor([&] { return flood.connected == callers; }), "the system takes all callers");
        QVERIFY2(waitFor([&] { return flood.open() <= most; }), "those without room are dropped");
        const int roundsBefore = early ? early->rounds : 0;
        const int served = flood.open();
        flood.closeAll();
        const qint64 ended = nowUs();
        QVERIFY2(serves(), "new callers are served after the flood");
        std::printf("flood: %d called, %d served, a new call after %lld ms\n", flood.connected, served,
                    (nowUs() - ended) / 1000);
        QVERIFY2(!early || (early->open() == 1 && early->wrong == 0 &&
                            waitFor([&] { return early->rounds > roundsBefore; })),
                 "who was served before the flood still is");
        const int reports = log().count("Ошибка приема входящего соединения");
        QVERIFY2(reports >= !isAbonent && reports <= (nowUs() - begun) / 1000000 + 2, "one report a second");
    }

    /// @param spare descriptors that are left; with none it is accept() that fails
    /// @param isWarm whether accept() has worked before
    void famine(int spare, bool isWarm)
    {
        begin({}, 0, isWarm);
        tell("log open");
        Figures before = server->stats();
        const qint64 begun = nowUs();
        tell("limit descriptors " + QByteArray::number(spare));
        LoadPlan plan = silent(20);
        plan.total = 100000;
        plan.pauseMs = 100;
        auto load = std::make_unique<Load>(plan);
        runLoop(isLong ? 5000 : 1500);
        load.reset();
        const double ms = double(nowUs() - begun) / 1000;
        const int lines = log().count("Ошибка приема");
        tell("limit none");
        QVERIFY2(serves(), "serves again when there are descriptors");
        Figures after = server->stats();
        const double share = (after["cpu"] - before["cpu"]) / ms;
        std::printf("famine: %.1f %% of a core, %d log lines, %.0f reports\n", share * 100, lines,
                    after["acceptErrors"] - before["acceptErrors"]);
        QVERIFY2(share <= 0.1 || isSanitized, "it rests instead of trying all the time");
        QVERIFY2(after["acceptErrors"] > before["acceptErrors"], "the journal is told");
        QVERIFY2(lines <= ms / 500 + 3, "about two lines a second"); // of the listener
    }

    void straggle(const QByteArray &script)
    {
        const int count = isLong ? 100 : 20;
        constexpr int waitMs = 270; // 0.9 of the setting
        begin("[Debug]\nall=" + QByteArray(script == "logging" ? "true" : "false") +
              "\n[Details]\ntransportServerThreadStopTimeout=300\n");
        const double wanted = server->stats()["made"] + count;
        tell("script " + script);
        Load load(talkers(count, 16, 0));
        QVERIFY2(waitFor([&] { return server->stats()["made"] == wanted; }), "all have a protocol");
        tell("disconnect nobody 3");
        tell("script echo");
        QVERIFY2(serves(), "others are not held up");
        const int ms = stop();
        std::printf("stragglers: %d %s, finished after %d ms\n", count, script.constData(), ms);
        QVERIFY2(ms >= waitMs, "finished() comes once, and not before the wait that is set");
        QVERIFY2(script == "blockingDelete" || waitFor([&] { return load.dropped == count; }),
                 "their peers are disconnected");
        Figures after = server->stats();
        QVERIFY2(script != "sleeping" || after["threads"] < count || isSanitized, "sleepers can be ended");
        QVERIFY2(after["killedUnannounced"] == 0, "told before it is done");
        QVERIFY2(script == "logging" || after["slots"] <= 1,
                 "only the server's thread has a slot of the log");
        tell("log still-usable");
        QVERIFY2(log().contains("still-usable\n"), "the log can be written");
        tell("start");
        QVERIFY2(serves() && server->lives(), "serves after the next start");
        server->end(SIGKILL); // they would hold up an orderly end
    }

private Q_SLOTS:
    void initTestCase()
    {
        const bool isGiven = qEnvironmentVariableIsSet("IPCHANNEL_SEED");
        const quint32 seed =
            isGiven ? qEnvironmentVariable("IPCHANNEL_SEED").toUInt() : std::random_device()();
        std::printf("IPCHANNEL_SEED=%u%s\n", seed, isNetworkOurs ? "" : ", without a network of its own");
        random.seed(seed);
        QVERIFY(identity.prepare(TestInstallation::path() + "/identity.pem"_s).isNull());
    }

    void cleanup()
    {
        if (server && server->lives()) {
            QVERIFY2(directory || stop() >= 0, "stop() is answered");
            QCOMPARE(server->end(directory ? SIGTERM : 0), 0);
        }
        server.reset();
    }

    void burst()
    {
        constexpr int calls = 1000;
        begin();
        const Figures before = server->stats();
        const qint64 droppedBefore = droppedRequests();
        const qint64 begun = nowUs();
        LoadPlan plan = talkers(calls, 16, 0);
        plan.rounds = 1;
        Load load(plan);
        QVERIFY2(waitFor([&] { return load.rounds == calls; }), "every caller gets its echo");
        std::printf("burst: %d in %lld ms, %lld requests dropped\n", calls, (nowUs() - begun) / 1000,
                    droppedRequests() - droppedBefore);
        QVERIFY2(droppedRequests() == droppedBefore || !isNetworkOurs, "the kernel drops no request");
        QCOMPARE(load.wrong, 0);
        QCOMPARE(leftOver(before), QByteArray());
    }

    void flood()
    {
        flood(false);
        flood(true);
    }

    /// Peers that never get as far as a greeting: silent, or one byte of TLS a second.
    void slow()
    {
        constexpr int callers = 300;
        beginAbonent(-256); // it takes what the hard limit gives
        QVERIFY2(serves(), "serves at first");
        LoadPlan plan = halfSecured(callers);
        plan.opening = [hello = plan.opening](int n) { return n % 2 == 0 ? QByteArray() : hello(n); };
        plan.dripMs = 1000;
        const int linesBefore = log().count('\n');
        Load slow(plan);
        QVERIFY2(waitFor([&] { return slow.connected == callers; }) && serves(), "serves besides them");
        QVERIFY2(runLoop(2 * inTimeMs, [&] { return slow.dropped == callers; }), "all are dropped");
        QVERIFY(waitFor([&] { return log().count("Потеряно соединение с абонентом ''") >= callers; }));
        const auto [first, last] = std::minmax_element(slow.lives.begin(), slow.lives.end());
        const int lines = log().count('\n') - linesBefore;
        std::printf("slow: %d dropped after %d to %d ms, %d log lines\n", callers, *first, *last, lines);
        QVERIFY2(lines <= 2 * callers + 10, "two lines each"); // those of the two that were served among them
    }

    void famine()
    {
        famine(0, false);
        famine(0, true);
        famine(4, true);
    }

    void noThreads()
    {
        if (isSanitized)
            QSKIP("The sanitizers need more address space than a limit leaves");
        begin("[Details]\ntransportIpThreadStartTimeout=100\n", 0, false); // no stack has been used and kept
        const Figures before = server->stats();
        const qint64 begun = nowUs();
        tell("limit memory 700");
        Load load(silent(20));
        QVERIFY2(waitFor([&] { return load.dropped == 20; }), "all are dropped");
        tell("call nobody " + recordFor(silentAddress, 1));
        runLoop(1100);
        tell("limit none");
        Figures after = server->stats();
        std::printf("noThreads: %d refused, %.0f reports\n", load.dropped, after["acceptErrors"]);
        QVERIFY2(after["acceptErrors"] >= 1, "the journal is told");
        QVERIFY2(after["acceptErrors"] <= (nowUs() - begun) / 1000000 + 2, "once a second");
        QCOMPARE(after["made"], 0.0);
        QVERIFY2(serves(), "serves when threads can be made");
        QCOMPARE(leftOver(before), QByteArray());
    }

    void churn()
    {
        const int calls = isLong ? 50000 : 5000;
        begin();
        LoadPlan talking = talkers(2, 16, 0);
        talking.rounds = 1;
        talking.resetEvery = 3;
        LoadPlan closing = silent(2); // at once, without a word
        closing.rounds = 0;
        const auto run = [&](int count) {
            talking.total = closing.total = count / 2;
            Load talk(talking);
            Load close(closing);
            return runLoop(inTimeMs + calls * 20, [&] { return talk.over() + close.over() == count; }) &&
                   talk.rounds == count / 2;
        };
        auto together = std::make_unique<Load>(talkers(50, 16, 0)); // workers that are kept
        QVERIFY2(run(400) && together->open() == 50, "short calls are served besides long ones");
        together.reset();
        runLoop(50);
        const Figures before = server->stats();
        double resident = 0; // after the first of the two, when memory has been taken that is kept
        for (const bool byReset : {true, false}) {
            resident = server->stats()["resident"];
            const qint64 begun = nowUs();
            QVERIFY2(run(calls / 2), "every call is served");
            std::printf("churn: %d in %.1f s\n", calls / 2, double(nowUs() - begun) / 1e6);
            LoadPlan doomed = talkers(50, 1000, 0); // peers that are killed in the middle of it
            doomed.resetEvery = byReset;
            Load load(doomed);
            QVERIFY2(waitFor([&] { return load.rounds > 200 && load.open() == 50; }), "all talk");
            load.closeAll();
            QCOMPARE(leftOver(before), QByteArray());
            QCOMPARE(load.wrong, 0);
        }
        const double grown = server->stats()["resident"] - resident;
        std::printf("churn: memory %+.0f KiB\n", grown);
        QVERIFY2(grown <= 2048 || isSanitized, "memory is given back");
        QVERIFY2(stop() >= 0, "stop() is answered");
        QVERIFY2(server->stats()["slots"] <= 1, "only the server's thread has a slot of the log");
    }

    void stragglers()
    {
        for (const char *script :
             {"sleeping", "spinning", "locked", "logging", "blockingStart", "blockingDelete"})
            straggle(script);
    }

    void atRandom()
    {
        begin("[Details]\ntransportIpConnectTimeout=700\ntransportServerThreadStopTimeout=2000\n");
        QVERIFY2(stop() >= 0 && stop() >= 0 && stop(2) >= 0,
                 "finished() for each stop(), also of one that has stopped");
        const Figures before = server->stats();
        const int ports[] = {port, freePort(), freePort()};
        LoadPlan plan = talkers(8, 3000, 5);
        plan.total = 1 << 30;
        plan.rounds = 10;
        plan.pauseMs = 20;
        plan.resetEvery = 3;
        Load load(plan);
        int steps = 0;
        for (const qint64 end = nowUs() + (isLong ? 600 : 6) * 1000000ll; nowUs() < end; ++steps) {
            const QByteArray name = " n" + QByteArray::number(chance(9)) + ' ';
            const QByteArray commands[] = {
                "start",
                "start",
                "settings",
                "script named",
                "script echo",
                "script refusing",
                "script endingAtOnce",
                chance(4) == 0 ? "stop 2" : "stop 1",
                "keep " + QByteArray::number(chance(20)),
                "disconnect" + name + QByteArray::number(chance(20) - 1),
                "call" + name +
                    recordFor("127.0.0.1", chance(2) == 0 ? load.port : 1), // ourselves, or nobody
                "call" + name + (chance(4) == 0 ? "00" : recordFor(silentAddress, 1))};
            const QByteArray command = commands[chance(int(std::size(commands)))];
            if (command == "settings")
                configure(TestInstallation::path(), load.port = ports[chance(3)], chance(100));
            const QByteArray answer = server->ask(command);
            QVERIFY2(!answer.isEmpty() && !answer.endsWith(" 0"), command);
            if (chance(5) == 0)
                load.cut(chance(2) == 0);
            runLoop(chance(15));
        }
        load.closeAll();
        QVERIFY2(stop() >= 0, "stop() is answered");
        std::printf("atRandom: %d steps, %d connections, %d echoes\n", steps, load.connected, load.rounds);
        QVERIFY2(load.rounds > 0, "some are served");
        QCOMPARE(leftOver(before), QByteArray());
    }
};

int main(int argc, char **argv)
{
    if (argc > 1 && qstrcmp(argv[1], "--host") == 0)
        return runFireHost(argc, argv, CHANNEL_FILE);
    rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    isNetworkOurs = makeNetwork();
    qputenv("QTEST_FUNCTION_TIMEOUT", "1200000"); // ms; ctest has limits of its own
    QCoreApplication application(argc, argv);
    TestFire test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_fire.moc"
