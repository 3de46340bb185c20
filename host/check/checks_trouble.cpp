// Checks of what goes wrong in a host's life: nobody answers, no protocol, a stop at the wrong moment.
#include "host/check/cfixture.h"
#include "host/check/checks.h"
#include "host/check/rules.h"

#include "common/csettings.h"
#include "common/logger.h"

namespace {

constexpr int afterwardsMs = 50; // for what should not come

QString openAndStart(CFixture &fixture, const Behaviour &behaviour = Behaviour())
{
    fixture.recorder.setConduct(behaviour);
    const QString error = fixture.open();
    if (error.isNull())
        fixture.start();
    return error;
}

/// After the trouble the server has to serve a call as if nothing had been, and end in order.
QString callAgain(CFixture &fixture)
{
    fixture.recorder.setConduct(Behaviour());
    fixture.call(2);
    QString error = fixture.waitConnected(2);
    if (error.isNull())
        error = fixture.stopAndClose();
    if (error.isNull())
        error = Rules::monitorEntries(fixture.recorder);
    return error;
}

} // namespace

QString Checks::silentAbonent(CFixture &fixture)
{
    if (!fixture.hasSilentRecord) {
        fixture.skipReason =
            QStringLiteral("нет данных абонента, который заведомо не отвечает: нужен --silent-data");
        return QString();
    }
    const QString error = openAndStart(fixture);
    if (!error.isNull())
        return error;
    fixture.step(QStringLiteral("вызов абонента, который не отвечает"));
    fixture.server->connectToAbonent(fixture.calledName(1), fixture.silentRecord);
    fixture.wait([&] { return fixture.recorder.count(What::NotConnected) > 0; });
    fixture.pause(afterwardsMs);
    if (fixture.recorder.count(What::NotConnected, fixture.calledName(1)) != 1 ||
        fixture.recorder.count(What::NotConnected) != 1)
        return QStringLiteral("Нужен один сигнал notConnected('%1'), пришло: %2, с этим именем: %3")
            .arg(fixture.calledName(1))
            .arg(fixture.recorder.count(What::NotConnected))
            .arg(fixture.recorder.count(What::NotConnected, fixture.calledName(1)));
    if (fixture.recorder.count(What::Connected) + fixture.recorder.count(What::Disconnected) > 0)
        return QStringLiteral("Для неудавшегося вызова пришел сигнал connected или disconnected");
    return callAgain(fixture);
}

QString Checks::garbageData(CFixture &fixture)
{
    const QString error = openAndStart(fixture);
    if (!error.isNull())
        return error;
    const QByteArray records[] = {QByteArray(), "x", QByteArray(3, '\0'), QByteArray(64 * 1024, '\xff'),
                                  fixture.ownRecord.left(fixture.ownRecord.size() / 2)};
    for (const QByteArray &record : records) {
        fixture.step(QStringLiteral("вызов с негодными данными, байт: %1").arg(record.size()));
        fixture.server->connectToAbonent(QStringLiteral("Негодный"), record);
        fixture.pause(5);
    }
    return callAgain(fixture);
}

QString Checks::refusedProtocol(CFixture &fixture)
{
    Behaviour behaviour;
    behaviour.refuses = true;
    const QString error = openAndStart(fixture, behaviour);
    if (!error.isNull())
        return error;
    fixture.call(1);
    if (!fixture.wait([&] { return fixture.recorder.count(What::Create) > 0; }))
        return QStringLiteral("Канал не попросил протокол");
    fixture.pause(afterwardsMs);
    if (fixture.recorder.count(What::Connected) > 0)
        return QStringLiteral("Программа отказалась от соединения, а канал сообщил о нем сигналом connected");
    return callAgain(fixture);
}

QString Checks::finishInStart(CFixture &fixture)
{
    Behaviour behaviour;
    behaviour.finishesInStart = true;
    const QString error = openAndStart(fixture, behaviour);
    if (!error.isNull())
        return error;
    fixture.call(1);
    if (!fixture.wait([&] { return fixture.recorder.count(What::Gone) > 0; }))
        return QStringLiteral("Протокол закончил работу прямо в start(), а соединение осталось");
    return callAgain(fixture);
}

QString Checks::finishInStop(CFixture &fixture)
{
    Behaviour behaviour;
    behaviour.finishesInStop = true;
    fixture.recorder.setConduct(behaviour);
    const QString error = wholeConversation(fixture, 0);
    return error.isNull() ? Rules::ownership(fixture.recorder) : error;
}

QString Checks::stopWhileCalling(CFixture &fixture)
{
    constexpr int mostDelayMs = 4;
    for (int delay = 0; delay <= mostDelayMs; ++delay) {
        QString error = openAndStart(fixture);
        if (!error.isNull())
            return error;
        fixture.call(1);
        if (delay > 0)
            fixture.pause(delay);
        error = fixture.stopAndClose();
        for (const auto rule : {Rules::ownership, Rules::monitorEntries, Rules::everyEndReported}) {
            if (error.isNull())
                error = rule(fixture.recorder);
        }
        if (!error.isNull())
            return QStringLiteral("stop() через %1 мс после вызова. %2").arg(QString::number(delay), error);
        fixture.recorder.clear();
    }
    return QString();
}

QString Checks::boundedWrite(CFixture &fixture)
{
    constexpr int spareMs = 1000;
    constexpr int floodMs = 2500;
    const int allowedMs = CSettings().detailsMaxWritingTime() + spareMs;
    Behaviour behaviour;
    behaviour.isDeaf = true;
    behaviour.floods = true;
    QString error = openAndStart(fixture, behaviour);
    if (!error.isNull())
        return error;
    fixture.call(1);
    error = fixture.waitConnected(1);
    if (!error.isNull())
        return error;
    fixture.step(QStringLiteral("запись абоненту, который не читает"));
    fixture.wait([&] { return fixture.recorder.count(What::Gone) > 0; }, floodMs);
    error = fixture.stopAndClose();
    const int longest = fixture.recorder.longestWriteMs;
    if (longest > allowedMs)
        return QStringLiteral("write() длился %1 мс, предел %2").arg(longest).arg(allowedMs);
    return error;
}

QString Checks::freeLogMutex(CFixture &fixture)
{
    fixture.recorder.logMutex = &LoggerData::debugData()->mutex;
    const QString error = wholeConversation(fixture, 2000);
    fixture.recorder.logMutex = nullptr;
    const QString complaint = fixture.recorder.complaint("lock");
    return complaint.isNull() ? error : complaint;
}
