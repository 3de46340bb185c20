// Whatever runs on a Qt event loop runs on a connection's in the same way: every program below is run
// on both, and has to leave the same record. Records hold orders and counts, never times.
#include "tests/support/messagecatcher.h"
#include "transportIp/cconnectiondispatcher.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSocketNotifier>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <functional>
#include <memory>
#include <thread>

#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int neverMs = 30000; // what a loop waits before it gives up: then the record shows it
using Flags = QEventLoop::ProcessEventsFlags;

class CRecord
{
public:
    void operator()(const char *what) { lines.append(QLatin1String(what)); }
    void operator()(const char *what, qint64 value)
    {
        lines.append(QStringLiteral("%1 %2").arg(QLatin1String(what)).arg(value));
    }

    QStringList lines;
};

using Program = void (*)(CRecord &);

/// Calls something from the loop of the current thread.
void post(QObject *context, const std::function<void()> &call)
{
    QMetaObject::invokeMethod(context, call, Qt::QueuedConnection);
}

QAbstractEventDispatcher *dispatcher()
{
    return QAbstractEventDispatcher::instance();
}

bool turn(Flags flags = QEventLoop::AllEvents)
{
    return dispatcher()->processEvents(flags);
}

/// A timer that calls something, made and started.
std::unique_ptr<QTimer> timer(int ms, std::function<void()> call, Qt::TimerType type = Qt::PreciseTimer)
{
    auto made = std::make_unique<QTimer>();
    made->setTimerType(type);
    QObject::connect(made.get(), &QTimer::timeout, made.get(), std::move(call));
    made->start(ms);
    return made;
}

/// A loop that ends by itself when nothing else ends it.
struct Loop : QEventLoop
{
    explicit Loop(CRecord &record)
    {
        giveUp.setSingleShot(true);
        connect(&giveUp, &QTimer::timeout, this, [this, &record] {
            record("gave up");
            quit();
        });
        giveUp.start(neverMs);
    }

    QTimer giveUp;
};

/// Two connected descriptors; the first can be read from when something has been sent().
struct Pair
{
    Pair() { (void)::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends); }
    ~Pair()
    {
        ::close(ends[0]);
        ::close(ends[1]);
    }
    void send() const { (void)::write(ends[1], "x", 1); }
    void take() const
    {
        char byte = 0;
        (void)::read(ends[0], &byte, 1);
    }

    int ends[2] = {-1, -1};
};

std::unique_ptr<QSocketNotifier> notifier(int descriptor, QSocketNotifier::Type type,
                                          std::function<void()> call)
{
    auto made = std::make_unique<QSocketNotifier>(descriptor, type);
    QObject::connect(made.get(), &QSocketNotifier::activated, made.get(), std::move(call));
    return made;
}

void aPeriodCountsFromTheLastDueTime(CRecord &record)
{
    constexpr int periodMs = 100;
    QElapsedTimer clock;
    int left = 0;
    do { // until nothing held us up for longer than the period
        clock.start();
        const auto periodic = timer(periodMs, [&] {});
        QThread::msleep(150);
        turn();
        left = periodic->remainingTime();
    } while (clock.elapsed() >= 2 * periodMs);
    record("keeps its beat", left <= periodMs / 2);
}

void remainingTimeIsRoundedUp(CRecord &record)
{
    const auto one = timer(60000, [] {});
    int longest = 0;
    for (int i = 0; i < 100; ++i) {
        one->start();
        longest = std::max(longest, one->remainingTime());
    }
    record("ms", longest);
    one->start(0);
    record("ms", one->remainingTime());
}

void aTimerRestsWhileItsHandlerRuns(CRecord &record)
{
    Loop outer(record);
    int depth = 0, turns = 0;
    std::unique_ptr<QTimer> resting;
    resting = timer(1, [&] {
        record("depth", ++depth);
        Loop nested(record);
        QTimer::singleShot(40, &nested, [&] { nested.quit(); });
        const auto counter =
            QObject::connect(dispatcher(), &QAbstractEventDispatcher::awake, [&] { ++turns; });
        nested.exec();
        QObject::disconnect(counter);
        record("spins", turns > 1000);
        resting->stop();
        outer.quit();
        --depth;
    });
    outer.exec();
}

void handlersChangeTimers(CRecord &record)
{
    std::unique_ptr<QTimer> second, third, fourth;
    const auto first = timer(1, [&] {
        record("first");
        second.reset();
        third->start(0);
        fourth = timer(0, [&] {
            record("fourth");
            fourth->start(0);
        });
    });
    second = timer(2, [&] { record("second"); });
    third = timer(3, [&] {
        record("third");
        third->stop();
    });
    first->setSingleShot(true);
    QThread::msleep(10);
    for (int i = 0; i < 4; ++i)
        record("turn", turn());
}

/// What is posted where foreign code runs is handled at once, and what is deleted there goes.
void everySignalMayPost(CRecord &record)
{
    using Call = std::function<void()>;
    const auto onSignal = [](auto signal) {
        return [signal](QObject *context, const Call &call) {
            QObject::connect(dispatcher(), signal, context, call);
        };
    };
    Pair pair;
    const std::vector<std::pair<const char *, std::function<void(QObject *, const Call &)>>> places = {
        {"awake", onSignal(&QAbstractEventDispatcher::awake)},
        {"aboutToBlock", onSignal(&QAbstractEventDispatcher::aboutToBlock)},
        {"posted", post},
        {"timer", [](QObject *context, const Call &call) { QTimer::singleShot(1, context, call); }},
        {"notifier", [&pair](QObject *context, const Call &call) {
             pair.send();
             const auto *made = new QSocketNotifier(pair.ends[0], QSocketNotifier::Read, context);
             QObject::connect(made, &QSocketNotifier::activated, context, call);
         }}};
    for (const auto &place : places) {
        record(place.first);
        Loop loop(record);
        const auto runFrom = [&](const Call &call) {
            bool isFirst = true;
            QObject context;
            place.second(&context, [&] {
                if (std::exchange(isFirst, false))
                    call();
            });
            loop.exec();
        };
        const auto finish = [&](const char *what) {
            record(what);
            loop.quit();
        };
        runFrom([&] { post(&loop, [&] { finish("handled"); }); });
        auto *dying = new QObject;
        QObject::connect(dying, &QObject::destroyed, &loop, [&] { finish("deleted"); });
        runFrom([&] { dying->deleteLater(); });
    }
}

void pendingEventsAreKnown(CRecord &record)
{
    QObject context;
    const auto look = [&] { record("pending", dispatcher()->hasPendingEvents()); };
    turn();
    look();
    post(&context, [&] { record("posted"); });
    look();
    QCoreApplication::sendPostedEvents();
    look();
}

void handlersChangeNotifiers(CRecord &record)
{
    Pair one, two;
    one.send();
    two.send();
    int activations = 0;
    std::unique_ptr<QSocketNotifier> a, b;
    // Which of the two comes first is open.
    a = notifier(one.ends[0], QSocketNotifier::Read, [&] {
        ++activations;
        b.reset();
    });
    b = notifier(two.ends[0], QSocketNotifier::Read, [&] {
        ++activations;
        a.reset();
    });
    turn();
    record("one deletes the other", activations);
    a.reset();
    b.reset();

    int depth = 0;
    b = notifier(two.ends[0], QSocketNotifier::Read, [&] {
        record("depth", ++depth);
        if (depth < 3)
            turn();
        else
            two.take();
        --depth;
    });
    turn();
    turn();
}

void aClosedDescriptorIsWarnedAboutOnce(CRecord &record)
{
    MessageCatcher messages;
    Pair pair;
    int activations = 0;
    const auto left = notifier(pair.ends[0], QSocketNotifier::Read, [&] { ++activations; });
    ::close(std::exchange(pair.ends[0], -1));
    for (int i = 0; i < 3; ++i)
        turn();
    record("activations", activations);
    record("enabled", left->isEnabled());
    record("warnings", messages.count(QtWarningMsg));
}

void loopsKeepToTheirFlags(CRecord &record)
{
    for (const int flags : {0x00, 0x01, 0x02, 0x04, 0x08, 0x0a, 0x20, 0x40, 0x6f}) {
        record("flags", flags);
        Pair pair;
        pair.send();
        bool hasRead = false, hasFired = false;
        const auto readable = notifier(pair.ends[0], QSocketNotifier::Read, [&] { hasRead = true; });
        const auto overdue = timer(1, [&] { hasFired = true; });
        QThread::msleep(5);
        QEventLoop loop;
        int left = 10;
        const std::function<void()> next = [&] { left-- > 0 ? post(&loop, next) : loop.exit(7); };
        post(&loop, next);
        record("code", loop.exec(Flags(flags)));
        record("has read", hasRead);
        record("has fired", hasFired);
    }
}

void turnsTellWhetherTheyDidAnything(CRecord &record)
{
    QObject context;
    turn();
    record("nothing", turn());
    post(&context, [] {});
    record("posted", turn());
    record("nothing", turn());
    post(&context, [] { dispatcher()->interrupt(); });
    record("interrupted", turn());
    record("its wake-up", turn());
    record("nothing", turn());
    const auto overdue = timer(1, [] {});
    record("waited", turn(QEventLoop::WaitForMoreEvents));
}

void otherThreadsReachTheLoop(CRecord &record)
{
    Loop loop(record);
    QObject context;
    QAbstractEventDispatcher *ours = dispatcher();
    QThread *const here = QThread::currentThread();
    for (const int restMs : {0, 30}) { // before the loop waits, and while it does
        std::thread other([&, restMs] {
            QThread::msleep(ulong(restMs));
            for (int i = 0; i < 3; ++i)
                post(&context, [&record, i] { record("posted", i); });
            post(&loop, [&loop] { loop.quit(); });
        });
        loop.exec();
        other.join();
    }
    turn();
    std::thread waker([ours] { ours->wakeUp(); });
    record("woken", turn(QEventLoop::WaitForMoreEvents));
    waker.join();

    std::unique_ptr<QTimer> moved;
    const std::unique_ptr<QThread> mover(QThread::create([&] {
        moved = timer(1, [&] {
            record("moved timer is here", QThread::currentThread() == here);
            moved->stop();
            loop.quit();
        });
        moved->moveToThread(here);
    }));
    mover->start();
    mover->wait();
    loop.exec();
}

const std::pair<const char *, Program> cases[] = {
#define PROGRAM(name) std::make_pair(#name, name)
    PROGRAM(aPeriodCountsFromTheLastDueTime),
    PROGRAM(remainingTimeIsRoundedUp),
    PROGRAM(aTimerRestsWhileItsHandlerRuns),
    PROGRAM(handlersChangeTimers),
    PROGRAM(everySignalMayPost),
    PROGRAM(pendingEventsAreKnown),
    PROGRAM(handlersChangeNotifiers),
    PROGRAM(aClosedDescriptorIsWarnedAboutOnce),
    PROGRAM(loopsKeepToTheirFlags),
    PROGRAM(turnsTellWhetherTheyDidAnything),
    PROGRAM(otherThreadsReachTheLoop),
#undef PROGRAM
};

QStringList recordOf(Program program, QAbstractEventDispatcher *ownDispatcher)
{
    CRecord record;
    const std::unique_ptr<QThread> thread(QThread::create([&] { program(record); }));
    if (ownDispatcher)
        thread->setEventDispatcher(ownDispatcher); // else Qt makes its own
    thread->start();
    thread->wait();
    return record.lines;
}

} // namespace

class TestConnectionDispatcher : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void doesAsQtDoes_data()
    {
        QTest::addColumn<int>("index");
        for (const auto &one : cases)
            QTest::newRow(one.first) << int(&one - cases);
    }

    void doesAsQtDoes()
    {
        QFETCH(int, index);
        const QStringList expected = recordOf(cases[index].second, nullptr);
        QCOMPARE(recordOf(cases[index].second, new CConnectionDispatcher), expected);
        QVERIFY2(!expected.isEmpty() && !expected.contains(QLatin1String("gave up")),
                 qPrintable(expected.join(QLatin1Char('\n'))));
    }
};

int main(int argc, char **argv)
{
    qputenv("QT_NO_GLIB", "1"); // of Qt's two the one whose order is fixed
    const QCoreApplication application(argc, argv);
    TestConnectionDispatcher test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_connectiondispatcher.moc"
