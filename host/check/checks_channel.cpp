// Checks of what a protocol may rely on in its channel: being woken, the end, a write that ends.
#include "host/check/cfixture.h"
#include "host/check/checks.h"

#include "common/csettings.h"

namespace {

constexpr int settleMs = 50; // until nobody has anything to do but to wait

/// A call of protocols that have no timer: the channel has to wake them.
void callTimeless(CFixture &fixture, Behaviour behaviour)
{
    behaviour.isTimeless = true;
    fixture.recorder.mayExchange = false;
    fixture.start(behaviour);
    fixture.call(1);
    fixture.expect(
        [&] { return fixture.recorder.count(What::Connected, fixture.calledName(1)) > 0; },
        [] { return QStringLiteral("Протокол без таймера не разбужен: пришли байты приветствия"); });
    fixture.pause(settleMs);
}

} // namespace

void Checks::wakeForBytes(CFixture &fixture)
{
    Behaviour behaviour;
    behaviour.payloadBytes = 3;
    callTimeless(fixture, behaviour);
    fixture.recorder.mayExchange = true;
    fixture.recorder.nudge();
    fixture.expect([&] { return fixture.recorder.count(What::Exchanged) > 0; },
                   [] { return QStringLiteral("Протокол без таймера не разбужен: пришли байты"); });
    fixture.stopAndClose();
}

void Checks::wakeForRoom(CFixture &fixture)
{
    Behaviour behaviour;
    behaviour.payloadBytes = 8 * 1024 * 1024; // more than any queue on the way takes
    behaviour.isDeaf = behaviour.isSink = true;
    callTimeless(fixture, behaviour);
    fixture.recorder.mayExchange = true;
    fixture.recorder.nudge();
    const auto isThere = [&] { return fixture.recorder.count(What::Exchanged) > 0; };
    fixture.wait([&] { return fixture.recorder.count(What::Full) > 0; });
    fixture.pause(settleMs);
    fixture.recorder.isDeaf = false;
    fixture.recorder.nudge();
    fixture.expect(isThere, [] {
        return QStringLiteral(
            "Протокол без таймера не разбужен: снова есть место, idealBlockSize() больше нуля");
    });
    fixture.stopAndClose();
}

void Checks::wakeForEnd(CFixture &fixture)
{
    callTimeless(fixture, Behaviour());
    fixture.disconnect(fixture.calledName(1), fixture.connectionOf(1));
    fixture.expect([&] { return fixture.recorder.count(What::Gone) == fixture.recorder.count(What::Create); },
                   [] { return QStringLiteral("Протокол без таймера не разбужен: соединение закончилось"); });
    fixture.stopAndClose();
}

void Checks::idleIsQuiet(CFixture &fixture)
{
    constexpr int idleMs = 300;
    constexpr int mostLooks = 100; // a busy machine makes them fewer
    callTimeless(fixture, Behaviour());
    const int before = fixture.recorder.looks;
    fixture.pause(idleMs);
    const int looks = fixture.recorder.looks - before;
    require(looks <= mostLooks,
            QStringLiteral("Без дела протоколы разбужены %1 раз за %2 мс").arg(looks).arg(idleMs));
    fixture.stopAndClose();
}

void Checks::bytesBeforeEnd(CFixture &fixture)
{
    Behaviour behaviour;
    behaviour.payloadBytes = 20000; // less than any queue takes
    behaviour.isDeaf = behaviour.isSink = behaviour.hangsUp = true;
    fixture.recorder.mayExchange = false;
    fixture.start(behaviour);
    fixture.call(1);
    fixture.waitConnected(1);
    fixture.recorder.mayExchange = true;
    if (fixture.recorder.count(What::Create) < 2)
        throw CheckSkip{QStringLiteral("на другом конце не этот канал")};
    fixture.wait([&] { return fixture.recorder.count(What::Gone) > 0; }); // the caller, who hangs up
    fixture.pause(settleMs);
    fixture.recorder.isDeaf = false;
    fixture.expect(
        [&] { return fixture.recorder.count(What::Gone) == fixture.recorder.count(What::Create); },
        [] { return QStringLiteral("Вызывающий разорвал соединение, а isConnected() остался true"); });
    require(fixture.recorder.count(What::Exchanged) > 0,
            QStringLiteral("Байты, пришедшие до конца соединения, потеряны"));
    fixture.stopAndClose();
}

void Checks::boundedWrite(CFixture &fixture)
{
    constexpr int spareMs = 1000;
    constexpr int floodMs = 2500;
    const int allowedMs = CSettings().detailsMaxWritingTime() + spareMs;
    Behaviour behaviour;
    behaviour.isDeaf = true;
    behaviour.floods = true;
    fixture.start(behaviour);
    fixture.call(1);
    fixture.waitConnected(1);
    fixture.step(QStringLiteral("запись абоненту, который не читает"));
    fixture.wait([&] { return fixture.recorder.count(What::Gone) > 0; }, floodMs);
    fixture.stop();
    const int longest = fixture.recorder.longestWriteMs;
    require(longest <= allowedMs,
            QStringLiteral("write() длился %1 мс, предел %2").arg(longest).arg(allowedMs));
    fixture.close();
    fixture.judge();
}
