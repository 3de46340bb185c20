// Checks of what goes wrong in a host's life: nobody answers, no protocol, a stop at the wrong moment.
#include "host/check/cfixture.h"
#include "host/check/checks.h"
#include "host/check/rules.h"

#include "common/global.h"
#include "common/logger.h"

#include <QDir>
#include <QThread>

#include <atomic>
#include <thread>

namespace {

constexpr int afterwardsMs = 50; // for what should not come

/// After the trouble the server has to serve a call as if nothing had been, and end in order.
void callAgain(CFixture &fixture)
{
    fixture.recorder.setBehaviour(Behaviour());
    fixture.call(2);
    fixture.waitConnected(2);
    fixture.stopAndClose();
}

/// The signals have to be these, with the names, and no others.
void requireSignals(const CFixture &fixture, const QStringList &wanted)
{
    QStringList seen;
    for (const Event &event : fixture.recorder.events()) {
        if (event.text.startsWith(QStringLiteral("Звонящий")))
            continue; // the side that was called tells of the caller
        if (event.what == What::Connected)
            seen << QStringLiteral("connected(%1)").arg(event.text);
        else if (event.what == What::NotConnected)
            seen << QStringLiteral("notConnected(%1)").arg(event.text);
        else if (event.what == What::Disconnected)
            seen << QStringLiteral("disconnected(%1)").arg(event.text);
    }
    require(seen == wanted, QStringLiteral("Нужны сигналы: %1; пришли: %2")
                                .arg(wanted.join(QLatin1String(", ")), seen.join(QLatin1String(", "))));
}

qint64 logBytes()
{
    qint64 sum = 0;
    const QFileInfoList files = Global::logDir(Global::currentSecrecy()).entryInfoList(QDir::Files);
    for (const QFileInfo &file : files)
        sum += file.size();
    return sum;
}

} // namespace

void Checks::silentAbonent(CFixture &fixture)
{
    if (!fixture.hasSilentRecord)
        throw CheckSkip{
            QStringLiteral("нет данных абонента, который заведомо не отвечает: нужен --silent-data")};
    fixture.start();
    fixture.step(QStringLiteral("вызов абонента, который не отвечает"));
    fixture.server->connectToAbonent(fixture.calledName(1), fixture.silentRecord);
    fixture.wait([&] { return fixture.recorder.count(What::NotConnected) > 0; });
    fixture.pause(afterwardsMs);
    requireSignals(fixture, {QStringLiteral("notConnected(%1)").arg(fixture.calledName(1))});
    callAgain(fixture);
}

void Checks::garbageData(CFixture &fixture)
{
    fixture.start();
    const QByteArray records[] = {QByteArray(), "x", QByteArray(3, '\0'), QByteArray(64 * 1024, '\xff'),
                                  fixture.ownRecord.left(fixture.ownRecord.size() / 2)};
    for (const QByteArray &record : records) {
        fixture.step(QStringLiteral("вызов с негодными данными, байт: %1").arg(record.size()));
        fixture.recorder.note(What::Call, 0, QStringLiteral("Негодный"));
        fixture.server->connectToAbonent(QStringLiteral("Негодный"), record);
        fixture.pause(5);
    }
    callAgain(fixture);
}

/// The one who answers a call gives another name than the one that was called.
void Checks::somebodyElse(CFixture &fixture)
{
    const QString called = fixture.calledName(1);
    const QString other = QStringLiteral("Другой");
    Behaviour behaviour;
    behaviour.answersAs = other;
    fixture.start(behaviour);
    fixture.call(1);
    fixture.expect(
        [&] { return fixture.recorder.count(What::Connected, other) > 0; },
        [&] { return QStringLiteral("Ответил другой абонент, а сигнала connected с его именем нет"); });
    fixture.disconnect(other, -1);
    fixture.wait([&] { return fixture.recorder.count(What::Disconnected, other) > 0; });
    fixture.pause(afterwardsMs);
    requireSignals(fixture, {QStringLiteral("connected(%1)").arg(other),
                             QStringLiteral("notConnected(%1)").arg(called),
                             QStringLiteral("disconnected(%1)").arg(other)});
    callAgain(fixture);
}

/// A call in which nobody says a name: its end is reported to who has called, and to nobody else.
void Checks::nobodyNamed(CFixture &fixture)
{
    Behaviour behaviour;
    behaviour.isNameless = true;
    fixture.start(behaviour);
    fixture.call(1);
    fixture.expect([&] { return fixture.recorder.count(What::Start, fixture.calledName(1)) > 0; },
                   [] { return QStringLiteral("Протокол вызова не запущен"); });
    fixture.pause(afterwardsMs);
    fixture.disconnect(fixture.calledName(1), -1);
    fixture.wait([&] { return fixture.recorder.count(What::Disconnected) > 0; });
    fixture.wait([&] { return fixture.recorder.count(What::Gone) == fixture.recorder.count(What::Create); });
    fixture.pause(afterwardsMs);
    requireSignals(fixture, {QStringLiteral("disconnected(%1)").arg(fixture.calledName(1))});
    callAgain(fixture);
}

/// The factory refuses the side of a call that asks first, then the second, then both. Who has got a
/// protocol has to see the end of the connection.
void Checks::refusedProtocol(CFixture &fixture)
{
    for (const unsigned refusals : {1U, 2U, ~0U}) {
        Behaviour behaviour;
        behaviour.refusals = refusals;
        behaviour.isNameless = true;
        fixture.start(behaviour);
        fixture.call(1);
        fixture.expect([&] { return fixture.recorder.count(What::Create) > 0; },
                       [] { return QStringLiteral("Канал не попросил протокол"); });
        fixture.pause(afterwardsMs);
        const auto made = [&] { return fixture.recorder.count(What::Start); };
        fixture.expect([&] { return fixture.recorder.count(What::Gone) == made(); },
                       [] {
                           return QStringLiteral(
                               "Программа отказалась от протокола, а другая сторона осталась соединенной");
                       });
        require(
            fixture.recorder.count(What::Connected) == 0,
            QStringLiteral("Программа отказалась от соединения, а канал сообщил о нем сигналом connected"));
        callAgain(fixture);
        fixture.recorder.clear();
    }
}

void Checks::finishInStart(CFixture &fixture)
{
    Behaviour behaviour;
    behaviour.finishesInStart = true;
    fixture.start(behaviour);
    fixture.call(1);
    fixture.expect(
        [&] { return fixture.recorder.count(What::Gone) > 0; },
        [] { return QStringLiteral("Протокол закончил работу прямо в start(), а соединение осталось"); });
    callAgain(fixture);
}

void Checks::finishInStop(CFixture &fixture)
{
    Behaviour behaviour;
    behaviour.finishesInStop = true;
    fixture.start(behaviour);
    fixture.call(1);
    fixture.waitConnected(1);
    fixture.disconnect(fixture.calledName(1), -1);
    fixture.expect(
        [&] { return fixture.recorder.count(What::Disconnected, fixture.calledName(1)) > 0; },
        [] { return QStringLiteral("Протокол закончил работу прямо в stop(), а соединение осталось"); });
    callAgain(fixture);
}

void Checks::stopWhileCalling(CFixture &fixture)
{
    constexpr int mostDelayMs = 4;
    for (int delay = 0; delay <= mostDelayMs; ++delay) {
        fixture.start();
        fixture.call(1);
        if (delay > 0)
            fixture.pause(delay);
        try {
            fixture.stopAndClose();
        } catch (const CheckFailure &failure) {
            fail(QStringLiteral("stop() через %1 мс после вызова. %2")
                     .arg(QString::number(delay), failure.text));
        }
        fixture.recorder.clear();
    }
}

/// Whatever comes too late comes after a while: as long is waited as for what has to happen.
void Checks::quietForLong(CFixture &fixture)
{
    converse(fixture, 2000);
    fixture.stop();
    fixture.step(QStringLiteral("ожидание после finished()"));
    fixture.pause(fixture.arguments.limitMs * 2 / 3);
    require(Rules::quietAfterFinish(fixture.recorder));
    fixture.close();
    fixture.step(QStringLiteral("ожидание после удаления сервера"));
    fixture.pause(fixture.arguments.limitMs / 3);
    require(Rules::quietAfterFinish(fixture.recorder));
}

void Checks::freeLogMutex(CFixture &fixture)
{
    fixture.recorder.logMutex = &LoggerData::debugData()->mutex;
    converse(fixture, 2000);
    fixture.stop();
    fixture.close();
    fixture.recorder.logMutex = nullptr;
    require(fixture.recorder.complaint("lock"));
}

/// While the host holds the mutex of its log, nothing of the channel may get into the log.
void Checks::sharedLog(CFixture &fixture)
{
    const int holdMs = fixture.arguments.limitMs / 5; // on a busy machine a call takes its time
    fixture.start();
    const qint64 before = logBytes();
    qint64 meanwhile = 0;
    std::atomic<bool> isHeld{false};
    std::thread holder([&] {
        const QMutexLocker locker(&LoggerData::debugData()->mutex);
        const qint64 atFirst = logBytes();
        isHeld = true;
        QThread::msleep(unsigned(holdMs));
        meanwhile = logBytes() - atFirst;
    });
    while (!isHeld)
        QThread::yieldCurrentThread();
    fixture.step(QStringLiteral("вызов, пока лог занят программой"));
    fixture.server->connectToAbonent(fixture.calledName(1), fixture.ownRecord);
    holder.join();
    fixture.recorder.note(What::Call, 0, fixture.calledName(1));
    require(meanwhile == 0, QStringLiteral("Канал пишет в лог, не занимая мьютекса DebugData программы"));
    fixture.waitConnected(1);
    fixture.stopAndClose();
    if (logBytes() == before)
        throw CheckSkip{QStringLiteral("канал ничего не пишет в лог")};
}
