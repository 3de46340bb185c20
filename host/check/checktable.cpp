#include "host/check/checktable.h"

#include "host/check/cfixture.h"
#include "host/check/checks.h"
#include "host/check/rules.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace {

constexpr int payloadBytes = 2000;

/// A check that is one rule, applied to a whole conversation.
template <QString (*rule)(const CRecorder &)>
QString judge(CFixture &fixture)
{
    const QString error = Checks::wholeConversation(fixture, payloadBytes);
    return error.isNull() ? rule(fixture.recorder) : error;
}

QString readComplaint(const CRecorder &recorder)
{
    return recorder.complaint("read");
}

constexpr char call[] = "call-connects"; // without a call most checks have nothing to look at

int answer(const char *result, const QString &text)
{
    std::printf("@result %s %s\n", result, text.simplified().toUtf8().constData());
    std::fflush(stdout);
    return 0;
}

} // namespace

const char *const everyOtherCheck = "*";

// clang-format off
const std::vector<Check> &checkTable()
{
    static const auto *const table = new std::vector<Check>{
        {"entry-points", nullptr, "библиотека загружается, все четыре функции на месте", false, Checks::entryPoints},
        {"api-version", "entry-points", "версия договора 16, другая отвергается до initDebug()", false, Checks::apiVersion},
        {"plugin-object", "api-version", "instance() дает самостоятельные объекты, deleteInstance() терпит нуль", false, Checks::pluginObject},
        {"plugin-threads", "plugin-object", "объекты канала можно использовать из нескольких потоков сразу", false, Checks::pluginThreads},
        {"call-delay", "plugin-object", "пауза перед вызовом растет и убывает в своих границах", false, Checks::callDelay},
        {"meta-object", "plugin-object", "сигналы и слоты сервера на своих местах, с именами параметров", false, Checks::metaObject},
        {"fresh-server", "plugin-object", "create() дает чистый сервер, не зависящий от объекта канала", false, Checks::freshServer},
        {"start-stop", "meta-object", "на stop() вовремя приходит ровно один finished()", false, Checks::startStop},
        {"stop-returns-first", "start-stop", "finished() приходит из цикла событий, а не изнутри stop()", false,
            [](CFixture &fixture) { const QString error = Checks::startStop(fixture); return error.isNull() ? Rules::stopReturnsFirst(fixture.recorder) : error; }},
        {"queries", "start-stop", "hasFreeChannel(), isHardwareOn(), canCheckOnline() отвечают сразу", false, Checks::queries},
        {"call-connects", "start-stop", "вызов приводит к connected с именем и номером соединения", true, Checks::callConnects},
        {"data-intact", call, "байты доходят все, по порядку и без изменений", true, Checks::dataIntact},
        {"read-limits", call, "read() не ждет и не возвращает больше, чем просили", true, judge<readComplaint>},
        {"presets", call, "до start() протоколу заданы имя, фильтрованное имя, метка и вид канала", true, judge<Rules::presets>},
        {"signal-threads", call, "connected и finished приходят из потока сервера, disconnected - из потока соединения", true, judge<Rules::signalThreads>},
        {"protocol-thread", call, "протокол создан, запущен и удален в одном потоке", true, judge<Rules::protocolThread>},
        {"every-end-reported", call, "на каждый конец названного соединения - один disconnected", true, judge<Rules::everyEndReported>},
        {"useful-flag", call, "disconnected передает wasUseful протокола", true, judge<Rules::usefulFlag>},
        {"monitor-entries", call, "строки монитора добавляются и убираются парами", true, judge<Rules::monitorEntries>},
        {"monitor-bytes", call, "монитор считает ровно те байты, что прочли и записали протоколы", true, judge<Rules::monitorBytes>},
        {"journal-records", call, "записи журнала имеют источник и известный вид", true, judge<Rules::journalRecords>},
        {"ownership", call, "протоколы удалены к finished(), фабрика - вместе с сервером, по одному разу", true, judge<Rules::ownership>},
        {"quiet-after-finish", call, "после finished() канал больше ни к чему не обращается", true, judge<Rules::quietAfterFinish>},
        {"free-log-mutex", call, "объекты программы вызываются со свободным мьютексом лога", true, Checks::freeLogMutex},
        {"restart", call, "после остановки сервер запускается снова, номера соединений идут с 1", true, Checks::restart},
        {"many-calls", call, "несколько вызовов сразу получают разные номера", true, Checks::manyCalls},
        {"disconnect-by-id", call, "разрыв по номеру заканчивает именно это соединение", true, Checks::disconnectById},
        {"disconnect-by-name", call, "разрыв по имени не смотрит на регистр и знаки", true, Checks::disconnectByName},
        {"unknown-connection", call, "неизвестные имя и номер никому не мешают", true, Checks::unknownConnection},
        {"settings-change", call, "settingsWasChanged() не рвет соединений", true, Checks::settingsChange},
        {"keep-alive", call, "keepAliveConnection() отмечает одно это соединение", true, Checks::keepAlive},
        {"queued-calls", call, "слоты можно вызывать по имени из нескольких потоков", true, Checks::queuedCalls},
        {"silent-abonent", call, "на вызов без ответа приходит один notConnected и ничего больше", true, Checks::silentAbonent},
        {"garbage-data", call, "негодные данные абонента не вредят серверу", true, Checks::garbageData},
        {"refused-protocol", call, "без протокола соединение закрывается, сервер работает дальше", true, Checks::refusedProtocol},
        {"finish-in-start", call, "finished() протокола прямо из start() заканчивает соединение", true, Checks::finishInStart},
        {"finish-in-stop", call, "finished() протокола прямо из stop(), в чужом потоке, заканчивает соединение", true, Checks::finishInStop},
        {"stop-while-calling", call, "stop() сразу после вызова не теряется", true, Checks::stopWhileCalling},
        {"bounded-write", call, "write() абоненту, который не читает, ограничен временем", true, Checks::boundedWrite},
        {"no-slot-left", call, "места отступов лога освобождены", true, Checks::noSlotLeft},
        {"no-thread-left", call, "не остается потоков", true, Checks::noThreadLeft},
        {"no-descriptor-left", call, "не остается дескрипторов", true, Checks::noDescriptorLeft},
        {"no-memory-left", call, "не остается памяти", true, Checks::noMemoryLeft},
        {"random-run", everyOtherCheck, "случайная последовательность действий не нарушает ни одного правила", true, Checks::randomRun},
    };
    return *table;
}
// clang-format on

int runCheckHere(CFixture &fixture, const QString &name)
{
    const std::vector<Check> &table = checkTable();
    const auto check = std::find_if(table.begin(), table.end(),
                                    [&](const Check &each) { return name == QLatin1String(each.name); });
    if (check == table.end())
        return 1;
    const bool loadsItself = check->run == Checks::entryPoints || check->run == Checks::apiVersion;
    QString error = loadsItself ? QString() : fixture.load();
    if (error.isNull() && check->placesCalls && !fixture.whyNoCalls().isNull())
        return answer("skip", fixture.whyNoCalls());
    if (error.isNull())
        error = check->run(fixture);
    if (error.isNull() && !fixture.skipReason.isNull())
        return answer("skip", fixture.skipReason);
    if (error.isNull())
        return answer("pass", QString());
    answer("fail", error);
    ::_exit(1); // in whatever state the channel is
}
