// A random life of a host. What is done depends on the seed alone, so a run can be repeated.
#include "host/check/checks.h"
#include "host/check/cstage.h"
#include "host/check/rules.h"

#include <random>

namespace {

constexpr int operations = 60;
constexpr int mostCalls = 12; // between two stops

class RandomHost
{
public:
    explicit RandomHost(CStage &theStage) : stage(theStage), random(theStage.arguments.seed) {}

    /// One operation. @return null, else what is wrong
    QString act()
    {
        CChannelServer &server = *stage.server;
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
            stage.pause(1 + draw(20));
            break;
        case 9:
            return draw(3) == 0 ? restart() : QString();
        }
        return QString();
    }

private:
    int draw(int count) { return int(random() % unsigned(count)); }
    QString someName() { return CStage::calledName(1 + draw(mostCalls)); }

    void place()
    {
        Conduct conduct;
        conduct.finishesInStart = draw(8) == 0;
        conduct.finishesInStop = draw(2) == 0;
        conduct.payloadBytes = draw(3) == 0 ? 0 : draw(50000);
        if (calls == mostCalls)
            return;
        stage.witness.setConduct(conduct);
        stage.call(++calls);
    }

    QString restart()
    {
        calls = 0;
        const QString error = stage.stop();
        if (error.isNull())
            stage.start();
        return error;
    }

    CStage &stage;
    std::mt19937 random;
    int calls = 0;
};

} // namespace

QString Checks::randomRun(CStage &stage)
{
    QString error = stage.open();
    if (!error.isNull())
        return error;
    stage.start();
    RandomHost host(stage);
    for (int i = 1; i <= operations && error.isNull(); ++i) {
        stage.step(QStringLiteral("действие %1 из %2").arg(i).arg(operations));
        error = host.act();
    }
    if (error.isNull())
        error = stage.stopAndClose();
    if (error.isNull())
        error = Rules::always(stage.witness);
    return error.isNull() ? error
                          : QStringLiteral("Зерно %1: %2").arg(QString::number(stage.arguments.seed), error);
}
