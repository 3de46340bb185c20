// A random life of a host. What is done depends on the seed alone, so a run can be repeated.
#include "host/check/cfixture.h"
#include "host/check/checks.h"
#include "host/check/rules.h"

#include <random>

namespace {

constexpr int operations = 60;
constexpr int mostCalls = 12; // between two stops

class RandomHost
{
public:
    explicit RandomHost(CFixture &theStage) : fixture(theStage), random(theStage.arguments.seed) {}

    /// One operation. @return null, else what is wrong
    QString act()
    {
        CChannelServer &server = *fixture.server;
        switch (draw(10)) {
        case 0:
        case 1:
        case 2:
            place();
            break;
        case 3:
            server.disconnectFromAbonent(someName(), -1);
            break;
        case 4:
            server.disconnectFromAbonent(someName(), 1 + draw(2 * mostCalls));
            break;
        case 5:
            server.keepAliveConnection(1 + draw(2 * mostCalls));
            break;
        case 6:
            server.settingsWasChanged();
            break;
        case 7:
            server.connectToAbonent(QStringLiteral("Негодный"), QByteArray(1 + draw(20), '\xfe'));
            break;
        case 8:
            fixture.pause(1 + draw(20));
            break;
        case 9:
            return draw(3) == 0 ? restart() : QString();
        }
        return QString();
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
        fixture.recorder.setConduct(behaviour);
        fixture.call(++calls);
    }

    QString restart()
    {
        calls = 0;
        const QString error = fixture.stop();
        if (error.isNull())
            fixture.start();
        return error;
    }

    CFixture &fixture;
    std::mt19937 random;
    int calls = 0;
};

} // namespace

QString Checks::randomRun(CFixture &fixture)
{
    QString error = fixture.open();
    if (!error.isNull())
        return error;
    fixture.start();
    RandomHost host(fixture);
    for (int i = 1; i <= operations && error.isNull(); ++i) {
        fixture.step(QStringLiteral("действие %1 из %2").arg(i).arg(operations));
        error = host.act();
    }
    if (error.isNull())
        error = fixture.stopAndClose();
    if (error.isNull())
        error = Rules::always(fixture.recorder);
    return error.isNull()
               ? error
               : QStringLiteral("Зерно %1: %2").arg(QString::number(fixture.arguments.seed), error);
}
