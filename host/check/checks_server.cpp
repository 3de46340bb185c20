// Checks of a server at work: life, calls, the slots.
#include "host/check/cfixture.h"
#include "host/check/checks.h"
#include "host/check/rules.h"

#include <algorithm>
#include <set>
#include <thread>

namespace {

constexpr int smallPayload = 2000;
constexpr int bigPayload = 300 * 1024;
constexpr int noConnection = 9999;

QString nobody()
{
    return QStringLiteral("Никто");
}

/// Calls that are connected and hold their payload back, so that it can be seen later who still works.
QString connectQuietly(CFixture &fixture, int calls)
{
    Behaviour behaviour;
    behaviour.payloadBytes = smallPayload;
    fixture.recorder.setConduct(behaviour);
    fixture.recorder.mayExchange = false;
    QString error = fixture.open();
    if (!error.isNull())
        return error;
    fixture.start();
    for (int number = 1; number <= calls && error.isNull(); ++number) {
        fixture.call(number);
        error = fixture.waitConnected(number);
    }
    return error;
}

/// The connection of a call has to be as good as new.
QString exchangeAndClose(CFixture &fixture, int number)
{
    fixture.recorder.mayExchange = true;
    const QString error = fixture.waitExchanged(number);
    return error.isNull() ? fixture.stopAndClose() : error;
}

/// Ends the first of two calls, by identifier or by name; the second has to live on.
QString disconnectFirst(CFixture &fixture, const QString &name, bool byName)
{
    const QString error = connectQuietly(fixture, 2);
    if (!error.isNull())
        return error;
    const int id = fixture.connectionOf(1);
    fixture.step(QStringLiteral("disconnectFromAbonent('%1', %2)").arg(name).arg(byName ? -1 : id));
    fixture.server->disconnectFromAbonent(name, byName ? -1 : id);
    if (!fixture.wait([&] { return fixture.recorder.count(What::Disconnected, fixture.calledName(1)) > 0; }))
        return QStringLiteral("Соединение %1 не разорвано: нет сигнала disconnected").arg(id);
    for (const Event &event : fixture.recorder.events()) {
        if (event.what == What::Disconnected && event.text == fixture.calledName(1) && event.number != id)
            return QStringLiteral("Сигнал disconnected назвал соединение %1 вместо %2")
                .arg(event.number)
                .arg(id);
    }
    return exchangeAndClose(fixture, 2);
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

QString Checks::converse(CFixture &fixture, int payloadBytes)
{
    Behaviour behaviour = fixture.recorder.behaviour();
    behaviour.payloadBytes = payloadBytes;
    fixture.recorder.setConduct(behaviour);
    QString error = fixture.open();
    if (!error.isNull())
        return error;
    fixture.start();
    fixture.call(1);
    error = fixture.waitConnected(1);
    if (error.isNull() && payloadBytes > 0)
        error = fixture.waitExchanged(1);
    return error;
}

QString Checks::wholeConversation(CFixture &fixture, int payloadBytes)
{
    const QString error = converse(fixture, payloadBytes);
    return error.isNull() ? fixture.stopAndClose() : error;
}

QString Checks::startStop(CFixture &fixture)
{
    constexpr int secondFinishedMs = 100;
    QString error = fixture.open();
    if (!error.isNull())
        return error;
    fixture.start();
    fixture.pause(20);
    error = fixture.stop();
    if (!error.isNull())
        return error;
    fixture.pause(secondFinishedMs);
    fixture.close();
    const int count = fixture.recorder.count(What::Finished);
    return count == 1 ? QString()
                      : QStringLiteral("На один stop() пришло сигналов finished(): %1").arg(count);
}

QString Checks::queries(CFixture &fixture)
{
    const QString error = fixture.open();
    if (!error.isNull())
        return error;
    fixture.start();
    fixture.step(QStringLiteral("isHardwareOn()"));
    const bool isHardwareOn = fixture.server->isHardwareOn();
    fixture.step(QStringLiteral("canCheckOnline()"));
    fixture.server->canCheckOnline();
    fixture.step(QStringLiteral("hasFreeChannel()"));
    if (!fixture.server->hasFreeChannel() && isHardwareOn)
        return QStringLiteral("Сервер без единого соединения отвечает, что свободного канала нет");
    return fixture.stopAndClose();
}

QString Checks::callConnects(CFixture &fixture)
{
    const QString error = converse(fixture, 0);
    if (!error.isNull() && fixture.server && !fixture.server->isHardwareOn()) {
        fixture.skipReason = QStringLiteral("оборудование канала не подключено");
        return QString();
    }
    if (!error.isNull())
        return error;
    if (fixture.connectionOf(1) < 1)
        return QStringLiteral("Номер соединения %1 меньше 1").arg(fixture.connectionOf(1));
    if (fixture.recorder.count(What::NotConnected) > 0)
        return QStringLiteral("Для удавшегося вызова пришел и сигнал notConnected");
    return fixture.stopAndClose();
}

QString Checks::dataIntact(CFixture &fixture)
{
    const QString error = wholeConversation(fixture, bigPayload);
    return error.isNull() ? fixture.recorder.complaint("data") : error;
}

QString Checks::restart(CFixture &fixture)
{
    QString error = converse(fixture, 0);
    for (int number = 2; error.isNull(); ++number) {
        if (leastConnection(fixture) != 1)
            return QStringLiteral("После запуска соединения считаются с %1, а не с 1")
                .arg(leastConnection(fixture));
        if (number == 3)
            return fixture.stopAndClose();
        error = fixture.stop();
        if (!error.isNull())
            break;
        fixture.recorder.clear();
        fixture.start();
        fixture.call(number);
        error = fixture.waitConnected(number);
    }
    return error;
}

QString Checks::manyCalls(CFixture &fixture)
{
    constexpr int calls = 5;
    QString error = fixture.open();
    if (!error.isNull())
        return error;
    fixture.start();
    for (int number = 1; number <= calls; ++number)
        fixture.call(number);
    for (int number = 1; number <= calls && error.isNull(); ++number)
        error = fixture.waitConnected(number);
    if (!error.isNull())
        return error;
    std::set<int> ids;
    for (const Event &event : fixture.recorder.events()) {
        if (event.what == What::Connected && !ids.insert(event.number).second)
            return QStringLiteral("Два соединения сразу имеют номер %1").arg(event.number);
    }
    error = fixture.stopAndClose();
    return error.isNull() ? Rules::everyEndReported(fixture.recorder) : error;
}

QString Checks::disconnectById(CFixture &fixture)
{
    return disconnectFirst(fixture, fixture.calledName(1), false);
}

QString Checks::disconnectByName(CFixture &fixture)
{
    // Names are the same when their letters and digits are, whatever the case.
    return disconnectFirst(fixture,
                           fixture.calledName(1).toUpper().replace(QLatin1Char(' '), QLatin1Char('-')), true);
}

QString Checks::unknownConnection(CFixture &fixture)
{
    const QString error = connectQuietly(fixture, 1);
    if (!error.isNull())
        return error;
    fixture.step(QStringLiteral("неизвестные имя и номер соединения"));
    fixture.server->disconnectFromAbonent(nobody(), noConnection);
    fixture.server->disconnectFromAbonent(nobody(), -1);
    fixture.server->keepAliveConnection(noConnection);
    return exchangeAndClose(fixture, 1);
}

QString Checks::settingsChange(CFixture &fixture)
{
    const QString error = connectQuietly(fixture, 1);
    if (!error.isNull())
        return error;
    fixture.step(QStringLiteral("settingsWasChanged()"));
    fixture.server->settingsWasChanged();
    return exchangeAndClose(fixture, 1);
}

QString Checks::keepAlive(CFixture &fixture)
{
    const QString error = connectQuietly(fixture, 2);
    if (!error.isNull())
        return error;
    const int id = fixture.connectionOf(1);
    fixture.step(QStringLiteral("keepAliveConnection(%1)").arg(id));
    fixture.server->keepAliveConnection(id);
    fixture.wait([&] { return !fixture.recorder.keptAlive().empty(); });
    fixture.pause(30);
    const std::vector<int> kept = fixture.recorder.keptAlive();
    if (kept.size() != 1)
        return QStringLiteral("keepAliveRequested установлен у %1 соединений вместо одного").arg(kept.size());
    for (const Event &event : fixture.recorder.events()) {
        if (event.what == What::Start && event.number == kept.front() && event.text != fixture.calledName(1))
            return QStringLiteral("keepAliveRequested установлен не у соединения %1").arg(id);
    }
    return exchangeAndClose(fixture, 2);
}

QString Checks::queuedCalls(CFixture &fixture)
{
    constexpr int threadCount = 4;
    constexpr int rounds = 50;
    const QString error = connectQuietly(fixture, 1);
    if (!error.isNull())
        return error;
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
    if (refused > 0)
        return QStringLiteral("Слоты не вызываются по именам, отказов: %1").arg(refused);
    return exchangeAndClose(fixture, 1);
}
