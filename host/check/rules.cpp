#include "host/check/rules.h"

#include "common/namefilter.h"
#include "host/check/crecorder.h"
#include "interfaces/cjournal.h"

#include <QStringList>

#include <algorithm>
#include <map>
#include <set>
#include <utility>

namespace {

bool isProtocols(const Event &event)
{
    return event.number > 0 &&
           (event.what == What::Create || event.what == What::Start || event.what == What::Gone);
}

/// The names in all events of a sort that have one, sorted.
QStringList namesIn(const CRecorder &recorder, What what)
{
    QStringList names;
    for (const Event &event : recorder.events()) {
        if (event.what == what && !event.text.isEmpty())
            names << event.text;
    }
    names.sort();
    return names;
}

} // namespace

QString Rules::presets(const CRecorder &recorder)
{
    QStringList labels;
    QStringList called;
    QStringList preset;
    for (const Event &event : recorder.events()) {
        if (event.what == What::AddConnection)
            labels << event.text;
        else if (event.what == What::Call)
            called << event.text;
    }
    for (const Presets &each : recorder.presets()) {
        preset << each.name;
        if (each.label.isEmpty() || !labels.contains(each.label))
            return QStringLiteral("До start() протоколу не дана метка соединения из монитора: '%1'")
                .arg(each.label);
        if (each.filteredName != Global::filterName(each.name))
            return QStringLiteral("remoteAbonentFilteredName '%1' не соответствует имени '%2'")
                .arg(each.filteredName, each.name);
        if (each.kind != recorder.kind)
            return QStringLiteral("Вид канала CChannel::kind равен %1, а type() модуля - %2")
                .arg(each.kind)
                .arg(recorder.kind);
        if (!each.name.isEmpty() && !called.contains(each.name))
            return QStringLiteral("remoteAbonentName задано '%1', а такого никто не вызывал").arg(each.name);
    }
    if (preset.size() >= 2 * called.size() && !called.isEmpty() && preset.join(QString()).isEmpty())
        return QStringLiteral("До start() протоколу вызова не дано имя вызванного абонента");
    return QString();
}

QString Rules::signalThreads(const CRecorder &recorder)
{
    std::set<int> connectionThreads;
    for (const Event &event : recorder.events()) {
        if (event.what == What::Create)
            connectionThreads.insert(event.thread);
        else if ((event.what == What::Connected || event.what == What::Finished) &&
                 event.thread != recorder.serverThread)
            return QStringLiteral("%1 пришел не из потока сервера")
                .arg(event.what == What::Finished ? QStringLiteral("finished") : QStringLiteral("connected"));
        else if (event.what == What::Disconnected && connectionThreads.count(event.thread) == 0)
            return QStringLiteral("disconnected('%1') пришел не из потока соединения").arg(event.text);
    }
    return QString();
}

QString Rules::protocolThread(const CRecorder &recorder)
{
    std::map<int, int> threads; // of the protocols alive, by number
    for (const Event &event : recorder.events()) {
        if (!isProtocols(event))
            continue;
        const int born = threads.emplace(event.number, event.thread).first->second;
        if (born == recorder.serverThread)
            return QStringLiteral("Протокол создан в потоке сервера, а нужен поток соединения");
        if (born != event.thread)
            return QStringLiteral("Протокол создан в одном потоке, а %1 - в другом")
                .arg(event.what == What::Start ? QStringLiteral("запущен") : QStringLiteral("удален"));
        if (std::count_if(threads.begin(), threads.end(),
                          [&](const auto &each) { return each.second == born; }) > 1)
            return QStringLiteral("Два протокола сразу живут в одном потоке");
        if (event.what == What::Gone)
            threads.erase(event.number);
    }
    return QString();
}

/// Asked by the thread that stops the server or a connection; by the connection's own when the request
/// came before the protocol had begun. Once for each request.
QString Rules::protocolStop(const CRecorder &recorder)
{
    int requests = 0; // that can have reached a protocol
    std::map<int, int> stops;
    std::map<int, int> lastRequest; // that reached a protocol from the server's thread
    std::map<int, int> early;       // requests that came while a protocol was beginning
    std::set<int> beginning;        // protocols
    std::map<int, int> threads;
    for (const Event &event : recorder.events()) {
        if (event.what == What::Disconnect || event.what == What::StopAsked) {
            ++requests;
            for (const int protocol : beginning)
                ++early[protocol];
        } else if (event.what == What::Started) {
            requests = 0;
            stops.clear();
            lastRequest.clear();
        } else if (event.what == What::Create) {
            threads[event.number] = event.thread;
            beginning.insert(event.number);
        } else if (event.what == What::Worked || event.what == What::Gone) {
            beginning.erase(event.number);
        } else if (event.what == What::Stop) {
            const bool isOwn = event.thread == threads[event.number];
            if (requests == 0)
                return QStringLiteral("stop() протокола, которого никто не останавливал");
            if (event.thread != recorder.serverThread && !(isOwn && event.value == 0))
                return QStringLiteral("stop() протокола пришел %1, а не из потока, который останавливает")
                    .arg(isOwn ? QStringLiteral("из потока соединения") : QStringLiteral("из чужого потока"));
            // One that came while the protocol was beginning may reach it late, together with the next.
            const bool isTwice = !isOwn && std::exchange(lastRequest[event.number], requests) == requests;
            if (++stops[event.number] > requests || (isTwice && early[event.number]-- <= 0))
                return QStringLiteral("stop() протокола вызван %1 раз, и не по разу на каждую остановку")
                    .arg(stops[event.number]);
        }
    }
    return QString();
}

/// The numbers by which a host ends and keeps its connections.
QString Rules::connectionNumbers(const CRecorder &recorder)
{
    std::map<QString, std::vector<int>> connected;
    std::map<QString, std::vector<int>> disconnected;
    for (const Event &event : recorder.events()) {
        if (event.what == What::Connected && event.number < 1)
            return QStringLiteral("Номер соединения %1 меньше 1").arg(event.number);
        if (event.what == What::Connected)
            connected[event.text].push_back(event.number);
        else if (event.what == What::Disconnected)
            disconnected[event.text].push_back(event.number);
    }
    for (const auto &[name, numbers] :
         connected) { // of a name that comes twice it is not known which is which
        const std::vector<int> &ended = disconnected[name];
        if (numbers.size() == 1 && ended.size() == 1 && numbers != ended)
            return QStringLiteral("connected('%1') дал номер %2, а disconnected - %3")
                .arg(name)
                .arg(numbers.front())
                .arg(ended.front());
    }
    return QString();
}

QString Rules::everyEndReported(const CRecorder &recorder)
{
    const QStringList ended = namesIn(recorder, What::Gone);
    const QStringList reported = namesIn(recorder, What::Disconnected);
    if (ended == reported)
        return QString();
    return QStringLiteral("Закончились соединения: %1; сигналы disconnected: %2")
        .arg(ended.join(QLatin1String(", ")), reported.join(QLatin1String(", ")));
}

QString Rules::usefulFlag(const CRecorder &recorder)
{
    std::multimap<QString, qint64> flags; // of the protocols, by name
    for (const Event &event : recorder.events()) {
        if (event.what == What::Gone)
            flags.emplace(event.text, event.value);
    }
    for (const Event &event : recorder.events()) {
        const auto [first, last] = flags.equal_range(event.text);
        const bool isRight = first == last || std::any_of(first, last, [&](const auto &each) {
                                 return each.second == event.value;
                             });
        if (event.what == What::Disconnected && !isRight)
            return QStringLiteral("disconnected('%1') сообщил wasUseful %2, у протокола другое")
                .arg(event.text)
                .arg(event.value);
    }
    return QString();
}

QString Rules::monitorEntries(const CRecorder &recorder)
{
    std::map<int, bool> entries{{CRecorder::ownHandle, true}}; // whether the entry is there
    for (const Event &event : recorder.events()) {
        const auto entry = entries.find(event.number);
        switch (event.what) {
        case What::AddConnection:
            if (event.value != recorder.kind)
                return QStringLiteral("addConnection() с видом канала %1").arg(event.value);
            if (event.text.isEmpty())
                return QStringLiteral("addConnection() без метки");
            entries[event.number] = true;
            break;
        case What::RemoveConnection:
            if (entry == entries.end() || !entry->second || event.number == CRecorder::ownHandle)
                return QStringLiteral("removeConnection() для строки, которой нет");
            entry->second = false;
            break;
        case What::SetState: // a state may be late
            if (entry == entries.end())
                return QStringLiteral("setState() для строки, которой не было: %1").arg(event.number);
            break;
        case What::Received:
        case What::Sent:
            if (entry == entries.end() || !entry->second)
                return QStringLiteral("Байты посчитаны для строки, которой нет: %1").arg(event.number);
            break;
        default:
            break;
        }
    }
    entries.erase(CRecorder::ownHandle);
    const auto left =
        std::count_if(entries.begin(), entries.end(), [](const auto &each) { return each.second; });
    return left == 0 ? QString() : QStringLiteral("После остановки в мониторе осталось строк: %1").arg(left);
}

QString Rules::monitorBytes(const CRecorder &recorder)
{
    qint64 read = 0;
    qint64 written = 0;
    qint64 received = 0;
    qint64 sent = 0;
    for (const Event &event : recorder.events()) {
        qint64 *const sum = event.what == What::Read       ? &read
                            : event.what == What::Written  ? &written
                            : event.what == What::Received ? &received
                            : event.what == What::Sent     ? &sent
                                                           : nullptr;
        if (sum)
            *sum += event.value;
    }
    if (read == received && written == sent)
        return QString();
    return QStringLiteral("Протоколы прочли %1 и записали %2 байт, в мониторе %3 и %4")
        .arg(read)
        .arg(written)
        .arg(received)
        .arg(sent);
}

QString Rules::journalRecords(const CRecorder &recorder)
{
    for (const Event &event : recorder.events()) {
        if (event.what != What::Record)
            continue;
        if (event.number != JournalEvent && event.number != JournalError)
            return QStringLiteral("Запись журнала неизвестного вида %1").arg(event.number);
        if (event.text.isEmpty())
            return QStringLiteral("Запись журнала без источника");
    }
    return QString();
}

QString Rules::ownership(const CRecorder &recorder)
{
    std::map<int, int> alive;
    int factories = 1;
    bool isServerGone = false;
    for (const Event &event : recorder.events()) {
        if (event.what == What::Create && event.number > 0)
            ++alive[event.number];
        else if (event.what == What::Gone)
            --alive[event.number];
        else if (event.what == What::Finished &&
                 std::any_of(alive.begin(), alive.end(), [](const auto &each) { return each.second != 0; }))
            return QStringLiteral("К сигналу finished() удалены не все протоколы");
        else if (event.what == What::FactoryGone && --factories < 0)
            return QStringLiteral("Фабрика протоколов удалена дважды");
        else if (event.what == What::FactoryGone && !isServerGone)
            return QStringLiteral("Фабрика протоколов удалена раньше сервера");
        else if (event.what == What::ServerGone)
            isServerGone = true;
    }
    return isServerGone && factories != 0 ? QStringLiteral("Сервер не удалил свою фабрику протоколов")
                                          : QString();
}

QString Rules::stopReturnsFirst(const CRecorder &recorder)
{
    bool isInStop = false;
    for (const Event &event : recorder.events()) {
        isInStop = event.what == What::StopAsked || (isInStop && event.what != What::StopReturned);
        if (isInStop && event.what == What::Finished)
            return QStringLiteral("finished() пришел раньше, чем вернулся stop()");
    }
    return QString();
}

QString Rules::quietAfterFinish(const CRecorder &recorder)
{
    bool isFinished = false;
    for (const Event &event : recorder.events()) {
        switch (event.what) {
        case What::Started:
            isFinished = false;
            break;
        case What::StopAsked:
        case What::StopReturned:
        case What::ServerGone:
        case What::FactoryGone:
            break;
        case What::Finished:
            if (isFinished)
                return QStringLiteral("Сигнал finished() пришел дважды");
            isFinished = true;
            break;
        default:
            if (isFinished)
                return QStringLiteral("После finished() канал продолжает обращаться к программе");
        }
    }
    return QString();
}

namespace {

template <const char *sort>
QString complaint(const CRecorder &recorder)
{
    return recorder.complaint(sort);
}

constexpr char data[] = "data";
constexpr char read[] = "read";
constexpr char connected[] = "connected";
constexpr char room[] = "room";
constexpr char prompt[] = "prompt";
constexpr char late[] = "late";

} // namespace

const std::vector<Rule> &ruleTable()
{
    // Causes before what they lead to.
    static const auto *const table = new std::vector<Rule>{
        {"protocol-thread", Rules::protocolThread},
        {"presets", Rules::presets},
        {"room", complaint<room>},
        {"connected-state", complaint<connected>},
        {"read-limits", complaint<read>},
        {"prompt-calls", complaint<prompt>},
        {"protocol-stop", Rules::protocolStop},
        {"signal-threads", Rules::signalThreads},
        {"connection-numbers", Rules::connectionNumbers},
        {"every-end-reported", Rules::everyEndReported},
        {"useful-flag", Rules::usefulFlag},
        {"monitor-entries", Rules::monitorEntries},
        {"monitor-bytes", Rules::monitorBytes},
        {"journal-records", Rules::journalRecords},
        {"ownership", Rules::ownership},
        {"stop-returns-first", Rules::stopReturnsFirst},
        {"stop-in-time", complaint<late>},
        {"quiet-after-finish", Rules::quietAfterFinish},
        {"data-intact", complaint<data>},
    };
    return *table;
}

BrokenRule firstBroken(const CRecorder &recorder, const QStringList &known, Moment moment)
{
    for (const Rule &rule : ruleTable()) {
        const bool isForTheEnd = rule.broken == Rules::everyEndReported ||
                                 rule.broken == Rules::monitorEntries || rule.broken == Rules::monitorBytes;
        if (known.contains(QLatin1String(rule.name)) || (isForTheEnd && moment == Moment::Meanwhile))
            continue;
        const QString text = rule.broken(recorder);
        if (!text.isNull())
            return {rule.name, text};
    }
    return {nullptr, QString()};
}
