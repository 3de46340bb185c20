// Checks of a server at work: life, calls, the slots.
#include "host/check/cfixture.h"
#include "host/check/checks.h"

#include <algorithm>
#include <map>
#include <set>
#include <thread>

namespace {

constexpr int smallPayload = 2000;
constexpr int bigPayload = 300 * 1024;
constexpr int noConnection = 9999;
constexpr int afterwardsMs = 50; // for what should not come

QString nobody()
{
    return QStringLiteral("Никто");
}

Behaviour payload(int bytes)
{
    Behaviour behaviour;
    behaviour.payloadBytes = bytes;
    return behaviour;
}

/// Calls that are connected and hold their payload back, so that it can be seen later who still works.
void connectQuietly(CFixture &fixture, int calls, const Behaviour &behaviour = payload(smallPayload))
{
    fixture.recorder.mayExchange = false;
    fixture.start(behaviour);
    for (int number = 1; number <= calls; ++number) {
        fixture.call(number);
        fixture.waitConnected(number);
    }
}

/// The connection of a call has to be as good as new.
void exchangeAndClose(CFixture &fixture, int number)
{
    fixture.recorder.mayExchange = true;
    fixture.waitExchanged(number);
    fixture.stopAndClose();
}

/// Ends the first of two calls, by identifier or by name; the second has to live on.
void disconnectFirst(CFixture &fixture, const QString &name, bool byName)
{
    connectQuietly(fixture, 2);
    const int id = fixture.connectionOf(1);
    fixture.disconnect(name, byName ? -1 : id);
    fixture.expect(
        [&] { return fixture.recorder.count(What::Disconnected, fixture.calledName(1)) > 0; },
        [&] { return QStringLiteral("Соединение %1 не разорвано: нет сигнала disconnected").arg(id); });
    exchangeAndClose(fixture, 2);
}

/// The smallest identifier reported since the last clear().
int leastConnection(const CFixture &fixture)
{
    int least = noConnection;
    for (const Event &event : fixture.recorder.events()) {
        if (event.what == What::Connected)
            least = std::min(least, event.number);
    }
    return least;
}

} // namespace

void Checks::converse(CFixture &fixture, int payloadBytes)
{
    fixture.start(payload(payloadBytes));
    fixture.call(1);
    fixture.waitConnected(1);
    if (payloadBytes > 0)
        fixture.waitExchanged(1);
}

void Checks::wholeConversation(CFixture &fixture, int payloadBytes)
{
    converse(fixture, payloadBytes);
    fixture.stopAndClose();
}

void Checks::startStop(CFixture &fixture)
{
    constexpr int secondFinishedMs = 100;
    fixture.start();
    fixture.pause(20);
    fixture.stop();
    fixture.pause(secondFinishedMs);
    const int count = fixture.recorder.count(What::Finished);
    require(count == 1, QStringLiteral("На один stop() пришло сигналов finished(): %1").arg(count));
    fixture.close();
    require(fixture.recorder.complaint("late"));
}

void Checks::queries(CFixture &fixture)
{
    fixture.start();
    const auto server = fixture.server.get();
    const bool isHardwareOn =
        fixture.ask(QStringLiteral("isHardwareOn()"), [=] { return server->isHardwareOn(); });
    fixture.ask(QStringLiteral("canCheckOnline()"), [=] { return server->canCheckOnline(); });
    const bool isFree =
        fixture.ask(QStringLiteral("hasFreeChannel()"), [=] { return server->hasFreeChannel(); });
    require(isFree || !isHardwareOn,
            QStringLiteral("Сервер без единого соединения отвечает, что свободного канала нет"));
    require(fixture.recorder.complaint("prompt"));
    fixture.stop();
    fixture.close();
}

void Checks::callConnects(CFixture &fixture)
{
    try {
        converse(fixture, 0);
    } catch (const CheckFailure &) {
        if (fixture.server && !fixture.server->isHardwareOn())
            throw CheckSkip{QStringLiteral("оборудование канала не подключено")};
        throw;
    }
    require(fixture.recorder.count(What::NotConnected) == 0,
            QStringLiteral("Для удавшегося вызова пришел и сигнал notConnected"));
    // One for each side; how many sides this channel sees is told by the protocols.
    const int connected = fixture.recorder.count(What::Connected);
    fixture.stop();
    fixture.close();
    const int named = fixture.recorder.count(What::Named);
    if (connected != named)
        throw CheckFailure{
            QStringLiteral("Имен узнано: %1, а сигналов connected: %2").arg(named).arg(connected), nullptr,
            true};
}

void Checks::conversation(CFixture &fixture)
{
    converse(fixture, bigPayload);
    fixture.call(2);
    fixture.waitConnected(2);
    fixture.waitExchanged(2);
    CChannelServer *const server = fixture.server.get();
    const int id = fixture.connectionOf(1);
    fixture.ask(QStringLiteral("keepAliveConnection()"), [=] { server->keepAliveConnection(id); });
    fixture.ask(QStringLiteral("settingsWasChanged()"), [=] { server->settingsWasChanged(); });
    fixture.disconnect(nobody(), noConnection);
    fixture.disconnect(fixture.calledName(1), id);
    fixture.wait([&] { return fixture.recorder.count(What::Disconnected, fixture.calledName(1)) > 0; });
    fixture.stop();
    fixture.pause(afterwardsMs);
    fixture.close();
    fixture.pause(afterwardsMs);
}

void Checks::restart(CFixture &fixture)
{
    converse(fixture, 0);
    for (int number = 2;; ++number) {
        const int least = leastConnection(fixture);
        require(least == 1, QStringLiteral("После запуска соединения считаются с %1, а не с 1").arg(least));
        if (number == 4)
            return fixture.stopAndClose();
        fixture.stop();
        fixture.recorder.clear();
        fixture.start();
        fixture.call(number);
        fixture.waitConnected(number);
    }
}

void Checks::manyCalls(CFixture &fixture)
{
    constexpr int calls = 5;
    connectQuietly(fixture, 0);
    for (int number = 1; number <= calls; ++number)
        fixture.call(number);
    for (int number = 1; number <= calls; ++number)
        fixture.waitConnected(number);
    std::set<int> ids;
    for (const Event &event : fixture.recorder.events()) {
        require(event.what != What::Connected || ids.insert(event.number).second,
                QStringLiteral("Два соединения сразу имеют номер %1").arg(event.number));
    }
    fixture.recorder.mayExchange = true;
    for (int number = 1; number <= calls; ++number)
        fixture.waitExchanged(number);
    fixture.stopAndClose();
}

void Checks::disconnectById(CFixture &fixture)
{
    disconnectFirst(fixture, fixture.calledName(1), false);
}

void Checks::disconnectByName(CFixture &fixture)
{
    // Names are the same when their letters and digits are, whatever the case.
    disconnectFirst(fixture, fixture.calledName(1).toUpper().replace(QLatin1Char(' '), QLatin1Char('-')),
                    true);
}

void Checks::unknownConnection(CFixture &fixture)
{
    connectQuietly(fixture, 1);
    fixture.disconnect(nobody(), noConnection);
    fixture.disconnect(nobody(), -1);
    fixture.disconnect(fixture.calledName(1), noConnection);
    fixture.server->keepAliveConnection(noConnection);
    fixture.server->keepAliveConnection(-1);
    exchangeAndClose(fixture, 1);
}

void Checks::settingsChange(CFixture &fixture)
{
    connectQuietly(fixture, 1);
    fixture.ask(QStringLiteral("settingsWasChanged()"), [&] { fixture.server->settingsWasChanged(); });
    exchangeAndClose(fixture, 1);
}

void Checks::keepAlive(CFixture &fixture)
{
    connectQuietly(fixture, 2);
    const int id = fixture.connectionOf(1);
    fixture.step(QStringLiteral("keepAliveConnection(%1)").arg(id));
    fixture.server->keepAliveConnection(id);
    fixture.wait([&] { return !fixture.recorder.keptAlive().empty(); });
    fixture.pause(30);
    const std::vector<int> kept = fixture.recorder.keptAlive();
    require(kept.size() == 1,
            QStringLiteral("keepAliveRequested установлен у %1 соединений вместо одного").arg(kept.size()));
    for (const Event &event : fixture.recorder.events()) {
        require(event.what != What::Start || event.number != kept.front() ||
                    event.text == fixture.calledName(1),
                QStringLiteral("keepAliveRequested установлен не у соединения %1").arg(id));
    }
    exchangeAndClose(fixture, 2);
}

void Checks::queuedCalls(CFixture &fixture)
{
    constexpr int threadCount = 4;
    constexpr int rounds = 50;
    connectQuietly(fixture, 1);
    fixture.step(QStringLiteral("слоты из %1 потоков через очередь событий").arg(threadCount));
    QObject *const server = fixture.server.get();
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    threads.reserve(threadCount);
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([server, &refused] {
            const Qt::ConnectionType queued = Qt::QueuedConnection;
            for (int round = 0; round < rounds; ++round) {
                refused += !QMetaObject::invokeMethod(server, "keepAliveConnection", queued,
                                                      Q_ARG(int, noConnection));
                refused += !QMetaObject::invokeMethod(server, "settingsWasChanged", queued);
                refused += !QMetaObject::invokeMethod(server, "disconnectFromAbonent", queued,
                                                      Q_ARG(QString, nobody()), Q_ARG(int, noConnection));
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    require(refused == 0, QStringLiteral("Слоты не вызываются по именам, отказов: %1").arg(refused));
    QMetaObject::invokeMethod(server, "connectToAbonent", Qt::QueuedConnection,
                              Q_ARG(QString, fixture.calledName(2)), Q_ARG(QByteArray, fixture.ownRecord));
    fixture.recorder.note(What::Call, 0, fixture.calledName(2));
    fixture.waitConnected(2);
    exchangeAndClose(fixture, 1);
}

/// Protocols that end only when they are told to: each has to be told, and once.
void Checks::stopReachesAll(CFixture &fixture)
{
    Behaviour behaviour;
    behaviour.holdsOut = true;
    connectQuietly(fixture, 2, behaviour);
    fixture.disconnect(fixture.calledName(1), fixture.connectionOf(1));
    fixture.expect([&] { return fixture.recorder.count(What::Disconnected, fixture.calledName(1)) > 0; },
                   [] { return QStringLiteral("stop() протокола не вызван при disconnectFromAbonent()"); });
    require(fixture.recorder.count(What::Stop) == 1,
            QStringLiteral("Разорвано одно соединение, а протоколов остановлено: %1")
                .arg(fixture.recorder.count(What::Stop)));
    fixture.stop();
    std::map<int, int> stops;
    for (const Event &event : fixture.recorder.events()) {
        if (event.what == What::Create)
            stops[event.number];
        else if (event.what == What::Stop)
            ++stops[event.number];
    }
    for (const auto &[number, count] : stops)
        require(count == 1, QStringLiteral("stop() протокола %1 вызван %2 раз").arg(number).arg(count));
    fixture.close();
    fixture.judge();
}
