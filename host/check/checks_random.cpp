// A random life of a host. What is done depends on the seed alone, so a run can be repeated.
#include "host/check/cfixture.h"
#include "host/check/checks.h"

#include <random>

namespace {

constexpr int operations = 60;
constexpr int mostCalls = 12; // between two stops

class RandomHost
{
public:
    explicit RandomHost(CFixture &theFixture) : fixture(theFixture), random(theFixture.arguments.seed) {}

    void act()
    {
        CChannelServer &server = *fixture.server;
        switch (draw(10)) {
        case 0:
        case 1:
        case 2:
            place();
            break;
        case 3:
            fixture.disconnect(someName(), -1);
            break;
        case 4:
            fixture.disconnect(someName(), 1 + draw(2 * mostCalls));
            break;
        case 5:
            server.keepAliveConnection(1 + draw(2 * mostCalls));
            break;
        case 6:
            server.settingsWasChanged();
            break;
        case 7:
            fixture.recorder.note(What::Call, 0, QStringLiteral("Негодный"));
            server.connectToAbonent(QStringLiteral("Негодный"), QByteArray(1 + draw(20), '\xfe'));
            break;
        case 8:
            fixture.pause(1 + draw(20));
            break;
        case 9:
            if (draw(3) == 0)
                restart();
            break;
        }
    }

private:
    int draw(int count) { return int(random() % unsigned(count)); }
    QString someName() { return CFixture::calledName(1 + draw(mostCalls)); }

    void place()
    {
        Behaviour behaviour;
        behaviour.finishesInStart = draw(8) == 0;
        behaviour.finishesInStop = draw(2) == 0;
        behaviour.payloadBytes = draw(3) == 0 ? 0 : draw(50000);
        if (calls == mostCalls)
            return;
        fixture.recorder.setBehaviour(behaviour);
        fixture.call(++calls);
    }

    void restart()
    {
        calls = 0;
        fixture.stop();
        fixture.start();
    }

    CFixture &fixture;
    std::mt19937 random;
    int calls = 0;
};

} // namespace

void Checks::randomRun(CFixture &fixture)
{
    fixture.start();
    RandomHost host(fixture);
    try {
        for (int i = 1; i <= operations; ++i) {
            fixture.step(QStringLiteral("действие %1 из %2").arg(i).arg(operations));
            host.act();
        }
        fixture.stopAndClose();
    } catch (const CheckFailure &failure) {
        fail(QStringLiteral("Зерно %1: %2").arg(QString::number(fixture.arguments.seed), failure.text));
    }
}
