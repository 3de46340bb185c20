// Checks of a server at work: life, calls, the slots.
#include "host/check/checks.h"
#include "host/check/cstage.h"
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
QString connectQuietly(CStage &stage, int calls)
{
    Conduct conduct;
    conduct.payloadBytes = smallPayload;
    stage.witness.setConduct(conduct);
    stage.witness.mayExchange = false;
    QString error = stage.open();
    if (!error.isNull())
        return error;
    stage.start();
    for (int number = 1; number <= calls && error.isNull(); ++number) {
        stage.call(number);
        error = stage.waitConnected(number);
    }
    return error;
}

/// The connection of a call has to be as good as new.
QString exchangeAndClose(CStage &stage, int number)
{
    stage.witness.mayExchange = true;
    const QString error = stage.waitExchanged(number);
    return error.isNull() ? stage.stopAndClose() : error;
}

/// Ends the first of two calls, by identifier or by name; the second has to live on.
QString disconnectFirst(CStage &stage, const QString &name, bool byName)
{
    const QString error = connectQuietly(stage, 2);
    if (!error.isNull())
        return error;
    const int id = stage.connectionOf(1);
    stage.step(QStringLiteral("disconnectFromAbonent('%1', %2)").arg(name).arg(byName ? -1 : id));
    stage.server->disconnectFromAbonent(name, byName ? -1 : id);
    if (!stage.wait([&] { return stage.witness.count(What::Disconnected, stage.calledName(1)) > 0; }))
        return QStringLiteral("Соединение %1 не разорвано: нет сигнала disconnected").arg(id);
    for (const Event &event : stage.witness.events()) {
        if (event.what == What::Disconnected && event.text == stage.calledName(1) && event.number != id)
            return QStringLiteral("Сигнал disconnected назвал соединение %1 вместо %2")
                .arg(event.number)
                .arg(id);
    }
    return exchangeAndClose(stage, 2);
}

/// The smallest identifier reported since the last clear().
int leastConnection(const CStage &stage)
{
    int least = noConnection;
    for (const Event &event : stage.witness.events()) {
        if (event.what == What::Connected)
            least = std::min(least, event.number);
    }
    return least;
}

} // namespace

QString Checks::converse(CStage &stage, int payloadBytes)
{
    Conduct conduct = stage.witness.conduct();
    conduct.payloadBytes = payloadBytes;
    stage.witness.setConduct(conduct);
    QString error = stage.open();
    if (!error.isNull())
        return error;
    stage.start();
    stage.call(1);
    error = stage.waitConnected(1);
    if (error.isNull() && payloadBytes > 0)
        error = stage.waitExchanged(1);
    return error;
}

QString Checks::wholeConversation(CStage &stage, int payloadBytes)
{
    const QString error = converse(stage, payloadBytes);
    return error.isNull() ? stage.stopAndClose() : error;
}

QString Checks::startStop(CStage &stage)
{
    constexpr int secondFinishedMs = 100;
    QString error = stage.open();
    if (!error.isNull())
        return error;
    stage.start();
    stage.pause(20);
    error = stage.stop();
    if (!error.isNull())
        return error;
    stage.pause(secondFinishedMs);
    stage.close();
    const int count = stage.witness.count(What::Finished);
    return count == 1 ? QString()
                      : QStringLiteral("На один stop() пришло сигналов finished(): %1").arg(count);
}

QString Checks::queries(CStage &stage)
{
    const QString error = stage.open();
    if (!error.isNull())
        return error;
    stage.start();
    stage.step(QStringLiteral("isHardwareOn()"));
    const bool isHardwareOn = stage.server->isHardwareOn();
    stage.step(QStringLiteral("canCheckOnline()"));
    stage.server->canCheckOnline();
    stage.step(QStringLiteral("hasFreeChannel()"));
    if (!stage.server->hasFreeChannel() && isHardwareOn)
        return QStringLiteral("Сервер без единого соединения отвечает, что свободного канала нет");
    return stage.stopAndClose();
}

QString Checks::callConnects(CStage &stage)
{
    const QString error = converse(stage, 0);
    if (!error.isNull() && stage.server && !stage.server->isHardwareOn()) {
        stage.skipReason = QStringLiteral("оборудование канала не подключено");
        return QString();
    }
    if (!error.isNull())
        return error;
    if (stage.connectionOf(1) < 1)
        return QStringLiteral("Номер соединения %1 меньше 1").arg(stage.connectionOf(1));
    if (stage.witness.count(What::NotConnected) > 0)
        return QStringLiteral("Для удавшегося вызова пришел и сигнал notConnected");
    return stage.stopAndClose();
}

QString Checks::dataIntact(CStage &stage)
{
    const QString error = wholeConversation(stage, bigPayload);
    return error.isNull() ? stage.witness.complaint("data") : error;
}

QString Checks::restart(CStage &stage)
{
    QString error = converse(stage, 0);
    for (int number = 2; error.isNull(); ++number) {
        if (leastConnection(stage) != 1)
            return QStringLiteral("После запуска соединения считаются с %1, а не с 1")
                .arg(leastConnection(stage));
        if (number == 3)
            return stage.stopAndClose();
        error = stage.stop();
        if (!error.isNull())
            break;
        stage.witness.clear();
        stage.start();
        stage.call(number);
        error = stage.waitConnected(number);
    }
    return error;
}

QString Checks::manyCalls(CStage &stage)
{
    constexpr int calls = 5;
    QString error = stage.open();
    if (!error.isNull())
        return error;
    stage.start();
    for (int number = 1; number <= calls; ++number)
        stage.call(number);
    for (int number = 1; number <= calls && error.isNull(); ++number)
        error = stage.waitConnected(number);
    if (!error.isNull())
        return error;
    std::set<int> ids;
    for (const Event &event : stage.witness.events()) {
        if (event.what == What::Connected && !ids.insert(event.number).second)
            return QStringLiteral("Два соединения сразу имеют номер %1").arg(event.number);
    }
    error = stage.stopAndClose();
    return error.isNull() ? Rules::everyEndReported(stage.witness) : error;
}

QString Checks::disconnectById(CStage &stage)
{
    return disconnectFirst(stage, stage.calledName(1), false);
}

QString Checks::disconnectByName(CStage &stage)
{
    // Names are the same when their letters and digits are, whatever the case.
    return disconnectFirst(stage, stage.calledName(1).toUpper().replace(QLatin1Char(' '), QLatin1Char('-')),
                           true);
}

QString Checks::unknownConnection(CStage &stage)
{
    const QString error = connectQuietly(stage, 1);
    if (!error.isNull())
        return error;
    stage.step(QStringLiteral("неизвестные имя и номер соединения"));
    stage.server->disconnectFromAbonent(nobody(), noConnection);
    stage.server->disconnectFromAbonent(nobody(), -1);
    stage.server->keepAliveConnection(noConnection);
    return exchangeAndClose(stage, 1);
}

QString Checks::settingsChange(CStage &stage)
{
    const QString error = connectQuietly(stage, 1);
    if (!error.isNull())
        return error;
    stage.step(QStringLiteral("settingsWasChanged()"));
    stage.server->settingsWasChanged();
    return exchangeAndClose(stage, 1);
}

QString Checks::keepAlive(CStage &stage)
{
    const QString error = connectQuietly(stage, 2);
    if (!error.isNull())
        return error;
    const int id = stage.connectionOf(1);
    stage.step(QStringLiteral("keepAliveConnection(%1)").arg(id));
    stage.server->keepAliveConnection(id);
    stage.wait([&] { return !stage.witness.keptAlive().empty(); });
    stage.pause(30);
    const std::vector<int> kept = stage.witness.keptAlive();
    if (kept.size() != 1)
        return QStringLiteral("keepAliveRequested установлен у %1 соединений вместо одного").arg(kept.size());
    for (const Event &event : stage.witness.events()) {
        if (event.what == What::Start && event.number == kept.front() && event.text != stage.calledName(1))
            return QStringLiteral("keepAliveRequested установлен не у соединения %1").arg(id);
    }
    return exchangeAndClose(stage, 2);
}

QString Checks::queuedCalls(CStage &stage)
{
    constexpr int threadCount = 4;
    constexpr int rounds = 50;
    const QString error = connectQuietly(stage, 1);
    if (!error.isNull())
        return error;
    stage.step(QStringLiteral("слоты из %1 потоков через очередь событий").arg(threadCount));
    QObject *const server = stage.server.get();
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
    return exchangeAndClose(stage, 1);
}
