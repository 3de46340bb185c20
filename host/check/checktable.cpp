#include "host/check/checktable.h"

#include "host/check/cfixture.h"
#include "host/check/checks.h"
#include "host/check/rules.h"

#include <csignal>
#include <cstdio>

#include <unistd.h>

namespace {

constexpr char call[] = "call-connects"; // without a call most checks have nothing to look at

void answer(const QString &name, const char *result, const QString &text)
{
    std::printf("@result %s %s %s\n", qUtf8Printable(name), result, qUtf8Printable(text.simplified()));
    std::fflush(stdout);
}

/// Runs one check, or the conversation of some rules.
void run(CFixture &fixture, const Check &check)
{
    if (check.run != Checks::entryPoints && check.run != Checks::apiVersion)
        fixture.load();
    if (check.placesCalls && !fixture.whyNoCalls().isNull())
        throw CheckSkip{fixture.whyNoCalls()};
    check.run(fixture);
}

/// The rules share a conversation, but each has a result of its own.
void tellRules(CFixture &fixture, const QStringList &names)
{
    for (const Rule &each : ruleTable()) {
        const QString error = each.broken(fixture.recorder);
        if (names.contains(QLatin1String(each.name)))
            answer(QLatin1String(each.name), error.isNull() ? "pass" : "fail", error);
    }
    answer(QStringLiteral("conversation"), "pass", QString());
}

/// What was broken before may be why something has not come; then that is what has failed.
void tellFailure(CFixture &fixture, const CheckFailure &failure, const QStringList &names)
{
    QString rule = QLatin1String(failure.rule);
    QString text = failure.text;
    if (failure.isLate) {
        const BrokenRule cause = firstBroken(fixture.recorder, fixture.arguments.known, Moment::Meanwhile);
        if (cause.name) {
            rule = QLatin1String(cause.name);
            text = cause.text + QStringLiteral(". ") + failure.text;
        }
    }
    if (rule.isEmpty() || !checkNamed(names.first())->placesCalls)
        rule = names.first();
    answer(rule, "fail", text);
    for (const QString &name : names) {
        if (name != rule)
            answer(name, "broken", rule + QLatin1Char(' ') + text);
    }
}

} // namespace

const char *const everyOtherCheck = "*";

bool Check::isRule() const
{
    return run == Checks::conversation;
}

bool Check::startsServer() const
{
    return placesCalls || run == Checks::startStop || run == Checks::queries;
}

// clang-format off
const std::vector<Check> &checkTable()
{
    constexpr bool noCalls = false;
    constexpr bool slow = true;
    constexpr auto rule = Checks::conversation;
    static const auto *const table = new std::vector<Check>{
        {"entry-points", nullptr, "библиотека загружается, все четыре функции на месте", Checks::entryPoints, noCalls},
        {"api-version", "entry-points", "версия договора 16, другая отвергается до initDebug()", Checks::apiVersion, noCalls},
        {"plugin-object", "api-version", "instance() дает самостоятельные объекты, deleteInstance() терпит нуль", Checks::pluginObject, noCalls},
        {"plugin-threads", "plugin-object", "объекты канала можно использовать из нескольких потоков сразу", Checks::pluginThreads, noCalls},
        {"call-delay", "plugin-object", "пауза перед вызовом растет и убывает в своих границах", Checks::callDelay, noCalls},
        {"meta-object", "plugin-object", "сигналы и слоты сервера на своих местах, с именами параметров", Checks::metaObject, noCalls},
        {"fresh-server", "plugin-object", "create() дает чистый сервер, не зависящий от объекта канала", Checks::freshServer, noCalls},
        {"start-stop", "meta-object", "на stop() вовремя приходит ровно один finished()", Checks::startStop, noCalls},
        {"queries", "start-stop", "hasFreeChannel(), isHardwareOn(), canCheckOnline() отвечают сразу", Checks::queries, noCalls},
        {"call-connects", "start-stop", "вызов приводит к connected с именем, по одному на сторону", Checks::callConnects},
        {"conversation", call, "два вызова с данными, разрыв и остановка проходят до конца", rule},
        {"protocol-thread", call, "протокол создан, запущен и удален в своем потоке соединения", rule},
        {"presets", call, "до start() протоколу заданы имя, фильтрованное имя, метка и вид канала", rule},
        {"room", call, "новое соединение готово принять байты: idealBlockSize() больше нуля", rule},
        {"connected-state", call, "isConnected() с концом соединения становится false навсегда", rule},
        {"read-limits", call, "read() не возвращает больше, чем просили; канал не держит протокол", rule},
        {"prompt-calls", call, "функции и слоты сервера возвращаются сразу", rule},
        {"protocol-stop", call, "stop() протокола приходит из потока, который останавливает, один раз", rule},
        {"signal-threads", call, "connected и finished приходят из потока сервера, disconnected - из потока соединения", rule},
        {"connection-numbers", call, "номера соединений идут с 1, у disconnected тот же, что у connected", rule},
        {"every-end-reported", call, "на каждый конец названного соединения - один disconnected", rule},
        {"useful-flag", call, "disconnected передает wasUseful протокола", rule},
        {"monitor-entries", call, "строки монитора добавляются и убираются парами", rule},
        {"monitor-bytes", call, "монитор считает ровно те байты, что прочли и записали протоколы", rule},
        {"journal-records", call, "записи журнала имеют источник и известный вид", rule},
        {"ownership", call, "протоколы удалены к finished(), фабрика - вместе с сервером, по одному разу", rule},
        {"stop-returns-first", call, "finished() приходит из цикла событий, а не изнутри stop()", rule},
        {"stop-in-time", call, "stop() возвращается сразу и заканчивается вовремя, и с соединениями", rule},
        {"data-intact", call, "байты доходят все, по порядку и без изменений", rule},
        {"quiet-after-finish", call, "после finished() канал больше ни к чему не обращается", rule},
        {"wake-for-bytes", call, "протокол без таймера разбужен, когда пришли байты", Checks::wakeForBytes},
        {"wake-for-room", call, "протокол без таймера разбужен, когда снова есть место", Checks::wakeForRoom},
        {"wake-for-end", call, "протокол без таймера разбужен, когда соединение закончилось", Checks::wakeForEnd},
        {"idle-is-quiet", call, "без дела канал никого не будит", Checks::idleIsQuiet},
        {"bytes-before-end", call, "после isConnected() == false пришедшее можно дочитать", Checks::bytesBeforeEnd},
        {"bounded-write", call, "write() абоненту, который не читает, ограничен временем", Checks::boundedWrite, true, slow},
        {"quiet-for-long", call, "и тогда, если подождать подольше", Checks::quietForLong, true, slow},
        {"free-log-mutex", call, "объекты программы вызываются со свободным мьютексом лога", Checks::freeLogMutex},
        {"shared-log", call, "лог пишется под мьютексом DebugData, данного в initDebug()", Checks::sharedLog},
        {"restart", call, "после остановки сервер запускается снова, номера соединений идут с 1", Checks::restart},
        {"many-calls", call, "несколько вызовов сразу получают разные номера и не мешают друг другу", Checks::manyCalls},
        {"disconnect-by-id", call, "разрыв по номеру заканчивает именно это соединение", Checks::disconnectById},
        {"disconnect-by-name", call, "разрыв по имени не смотрит на регистр и знаки", Checks::disconnectByName},
        {"unknown-connection", call, "неизвестные имя и номер никому не мешают", Checks::unknownConnection},
        {"settings-change", call, "settingsWasChanged() не рвет соединений", Checks::settingsChange},
        {"keep-alive", call, "keepAliveConnection() отмечает одно это соединение", Checks::keepAlive},
        {"queued-calls", call, "слоты можно вызывать по имени из нескольких потоков", Checks::queuedCalls},
        {"stop-reaches-all", call, "stop() и разрыв доходят до каждого протокола, по одному разу", Checks::stopReachesAll},
        {"silent-abonent", call, "на вызов без ответа приходит один notConnected и ничего больше", Checks::silentAbonent},
        {"somebody-else", call, "ответил другой: notConnected с именем вызванного, остальное - с его собственным", Checks::somebodyElse},
        {"nobody-named", call, "о принятом вызове без имени не сообщается ничего, о своем - disconnected", Checks::nobodyNamed},
        {"garbage-data", call, "негодные данные абонента не вредят серверу", Checks::garbageData},
        {"refused-protocol", call, "без протокола соединение закрывается, сервер работает дальше", Checks::refusedProtocol},
        {"finish-in-start", call, "finished() протокола прямо из start() заканчивает соединение", Checks::finishInStart},
        {"finish-in-stop", call, "finished() протокола прямо из stop(), в чужом потоке, заканчивает соединение", Checks::finishInStop},
        {"stop-while-calling", call, "stop() сразу после вызова не теряется", Checks::stopWhileCalling},
        {"no-slot-left", call, "места отступов лога освобождены", Checks::noSlotLeft},
        {"no-object-left", call, "не остается объектов Qt, в том числе потоков", Checks::noObjectLeft},
        {"no-thread-left", call, "не остается потоков", Checks::noThreadLeft},
        {"no-descriptor-left", call, "не остается дескрипторов", Checks::noDescriptorLeft},
        {"no-memory-left", call, "не остается памяти", Checks::noMemoryLeft, true, slow},
        {"random-run", everyOtherCheck, "случайная последовательность действий не нарушает ни одного правила", Checks::randomRun},
    };
    return *table;
}
// clang-format on

const Check *checkNamed(const QString &name)
{
    for (const Check &check : checkTable()) {
        if (name == QLatin1String(check.name))
            return &check;
    }
    return nullptr;
}

int runCheckHere(CFixture &fixture, const QStringList &names)
{
    const Check *const check = checkNamed(names.value(0));
    if (!check)
        return 1;
    if (fixture.arguments.debugger)
        ::raise(SIGSTOP);
    try {
        run(fixture, *check);
        if (check->isRule())
            tellRules(fixture, names);
        else
            answer(names.first(), "pass", QString());
        return 0;
    } catch (const CheckSkip &skip) {
        for (const QString &name : names)
            answer(name, "skip", skip.reason);
        return 0;
    } catch (const CheckFailure &failure) {
        tellFailure(fixture, failure, names);
    }
    ::_exit(1); // in whatever state the channel is
}
