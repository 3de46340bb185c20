// Checks of what goes wrong in a host's life: nobody answers, no protocol, a stop at the wrong moment.
#include "host/check/checks.h"
#include "host/check/cstage.h"
#include "host/check/rules.h"

#include "common/csettings.h"
#include "common/logger.h"

namespace {

constexpr int afterwardsMs = 50; // for what should not come

QString openAndStart(CStage &stage, const Conduct &conduct = Conduct())
{
    stage.witness.setConduct(conduct);
    const QString error = stage.open();
    if (error.isNull())
        stage.start();
    return error;
}

/// After the trouble the server has to serve a call as if nothing had been, and end in order.
QString callAgain(CStage &stage)
{
    stage.witness.setConduct(Conduct());
    stage.call(2);
    QString error = stage.waitConnected(2);
    if (error.isNull())
        error = stage.stopAndClose();
    if (error.isNull())
        error = Rules::monitorEntries(stage.witness);
    return error;
}

} // namespace

QString Checks::silentAbonent(CStage &stage)
{
    if (!stage.hasSilentRecord) {
        stage.skipReason =
            QStringLiteral("нет данных абонента, который заведомо не отвечает: нужен --silent-data");
        return QString();
    }
    const QString error = openAndStart(stage);
    if (!error.isNull())
        return error;
    stage.step(QStringLiteral("вызов абонента, который не отвечает"));
    stage.server->connectToAbonent(stage.calledName(1), stage.silentRecord);
    stage.wait([&] { return stage.witness.count(What::NotConnected) > 0; });
    stage.pause(afterwardsMs);
    if (stage.witness.count(What::NotConnected, stage.calledName(1)) != 1 ||
        stage.witness.count(What::NotConnected) != 1)
        return QStringLiteral("Нужен один сигнал notConnected('%1'), пришло: %2, с этим именем: %3")
            .arg(stage.calledName(1))
            .arg(stage.witness.count(What::NotConnected))
            .arg(stage.witness.count(What::NotConnected, stage.calledName(1)));
    if (stage.witness.count(What::Connected) + stage.witness.count(What::Disconnected) > 0)
        return QStringLiteral("Для неудавшегося вызова пришел сигнал connected или disconnected");
    return callAgain(stage);
}

QString Checks::garbageData(CStage &stage)
{
    const QString error = openAndStart(stage);
    if (!error.isNull())
        return error;
    const QByteArray records[] = {QByteArray(), "x", QByteArray(3, '\0'), QByteArray(64 * 1024, '\xff'),
                                  stage.ownRecord.left(stage.ownRecord.size() / 2)};
    for (const QByteArray &record : records) {
        stage.step(QStringLiteral("вызов с негодными данными, байт: %1").arg(record.size()));
        stage.server->connectToAbonent(QStringLiteral("Негодный"), record);
        stage.pause(5);
    }
    return callAgain(stage);
}

QString Checks::refusedProtocol(CStage &stage)
{
    Conduct conduct;
    conduct.refuses = true;
    const QString error = openAndStart(stage, conduct);
    if (!error.isNull())
        return error;
    stage.call(1);
    if (!stage.wait([&] { return stage.witness.count(What::Create) > 0; }))
        return QStringLiteral("Канал не попросил протокол");
    stage.pause(afterwardsMs);
    if (stage.witness.count(What::Connected) > 0)
        return QStringLiteral("Программа отказалась от соединения, а канал сообщил о нем сигналом connected");
    return callAgain(stage);
}

QString Checks::finishInStart(CStage &stage)
{
    Conduct conduct;
    conduct.finishesInStart = true;
    const QString error = openAndStart(stage, conduct);
    if (!error.isNull())
        return error;
    stage.call(1);
    if (!stage.wait([&] { return stage.witness.count(What::Gone) > 0; }))
        return QStringLiteral("Протокол закончил работу прямо в start(), а соединение осталось");
    return callAgain(stage);
}

QString Checks::finishInStop(CStage &stage)
{
    Conduct conduct;
    conduct.finishesInStop = true;
    stage.witness.setConduct(conduct);
    const QString error = wholeConversation(stage, 0);
    return error.isNull() ? Rules::ownership(stage.witness) : error;
}

QString Checks::stopWhileCalling(CStage &stage)
{
    constexpr int mostDelayMs = 4;
    for (int delay = 0; delay <= mostDelayMs; ++delay) {
        QString error = openAndStart(stage);
        if (!error.isNull())
            return error;
        stage.call(1);
        if (delay > 0)
            stage.pause(delay);
        error = stage.stopAndClose();
        for (const auto rule : {Rules::ownership, Rules::monitorEntries, Rules::everyEndReported}) {
            if (error.isNull())
                error = rule(stage.witness);
        }
        if (!error.isNull())
            return QStringLiteral("stop() через %1 мс после вызова. %2").arg(QString::number(delay), error);
        stage.witness.clear();
    }
    return QString();
}

QString Checks::boundedWrite(CStage &stage)
{
    constexpr int spareMs = 1000;
    constexpr int floodMs = 2500;
    const int allowedMs = CSettings().detailsMaxWritingTime() + spareMs;
    Conduct conduct;
    conduct.isDeaf = true;
    conduct.floods = true;
    QString error = openAndStart(stage, conduct);
    if (!error.isNull())
        return error;
    stage.call(1);
    error = stage.waitConnected(1);
    if (!error.isNull())
        return error;
    stage.step(QStringLiteral("запись абоненту, который не читает"));
    stage.wait([&] { return stage.witness.count(What::Gone) > 0; }, floodMs);
    error = stage.stopAndClose();
    const int longest = stage.witness.longestWriteMs;
    if (longest > allowedMs)
        return QStringLiteral("write() длился %1 мс, предел %2").arg(longest).arg(allowedMs);
    return error;
}

QString Checks::freeLogMutex(CStage &stage)
{
    stage.witness.logMutex = &LoggerData::debugData()->mutex;
    const QString error = wholeConversation(stage, 2000);
    stage.witness.logMutex = nullptr;
    const QString complaint = stage.witness.complaint("lock");
    return complaint.isNull() ? error : complaint;
}
