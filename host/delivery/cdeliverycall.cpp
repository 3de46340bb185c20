#include "host/delivery/cdeliverycall.h"

#include "common/csettings.h"
#include "common/global.h"
#include "host/cmessenger.h"
#include "host/commands/exitcodes.h"
#include "host/console/cconsole.h"
#include "transportIp/ipsettings.h"

namespace {

constexpr int progressMs = 50;
constexpr int keepMs = 10000;
constexpr int noWordReserveMs = 20000; // beyond what the channel may take to connect

} // namespace

CDeliveryCall::CDeliveryCall(const CallTarget &whom, CDelivery &what, CMessenger &through, CConsole &shownOn)
    : target(whom), delivery(what), messenger(through), console(shownOn), retriesLeft(whom.retries)
{
    // Workers emit two of these from their own threads; being connected to an object of this thread,
    // they arrive here.
    CChannelServer *server = messenger.server();
    connect(server, SIGNAL(connected(QString, int)), this, SLOT(connected(QString, int)));
    connect(server, SIGNAL(notConnected(QString)), this, SLOT(notConnected(QString)));
    connect(server, SIGNAL(disconnected(QString, int, bool)), this, SLOT(disconnected(QString, int, bool)));

    noWord.setSingleShot(true);
    connect(&noWord, &QTimer::timeout, this, &CDeliveryCall::callEnded);
    connect(&progressTimer, &QTimer::timeout, this, &CDeliveryCall::showProgress);
    connect(&keepTimer, &QTimer::timeout, this,
            [this] { messenger.server()->keepAliveConnection(connection); });
}

void CDeliveryCall::begin()
{
    clock.start();
    messenger.plugin()->decCallTimeout(&retryDelay); // down to the shortest that the channel allows
    call();
}

void CDeliveryCall::cancel(int exitCode)
{
    end(exitCode, QStringLiteral("Передача прервана"));
}

void CDeliveryCall::call()
{
    if (isOver)
        return;
    CChannelServer *server = messenger.server();
    isCalling = true;
    wasConnected = false;
    if (!server->isHardwareOn() || !server->hasFreeChannel())
        return callEnded();
    AbonentIpSettings settings;
    settings.address = target.address;
    settings.port = target.port;
    CSettings limits;
    noWord.start(limits.detailsTransportIpThreadStartTimeout() + limits.detailsTransportIpConnectTimeout() +
                 noWordReserveMs);
    server->connectToAbonent(target.abonent, settings.toByteArray());
}

void CDeliveryCall::connected(const QString &abonentName, int connectionId)
{
    if (!isCalling || Global::filterName(abonentName) != Global::filterName(target.abonent))
        return; // somebody is calling us meanwhile
    noWord.stop();
    wasConnected = true;
    connection = connectionId;
    messenger.plugin()->decCallTimeout(&retryDelay);
    progressTimer.start(progressMs);
    keepTimer.start(keepMs);
}

void CDeliveryCall::notConnected(const QString &abonentName)
{
    if (isCalling && abonentName == target.abonent)
        callEnded();
}

void CDeliveryCall::disconnected(const QString &abonentName, int connectionId, bool wasUseful)
{
    Q_UNUSED(wasUseful)
    const bool isOurs = connection >= 0
                            ? connectionId == connection
                            : Global::filterName(abonentName) == Global::filterName(target.abonent);
    if (isCalling && isOurs)
        callEnded();
}

void CDeliveryCall::callEnded()
{
    if (isOver)
        return;
    isCalling = false;
    connection = -1;
    noWord.stop();
    progressTimer.stop();
    keepTimer.stop();
    showProgress();

    const CDelivery::Progress progress = delivery.progress();
    switch (progress.state) {
    case CDelivery::Done:
        return endDone();
    case CDelivery::SomebodyElse:
        return end(ExitSomebodyElse, progress.trouble);
    case CDelivery::UnderWay:
        break;
    }
    if (wasConnected)
        retryOrEnd(ExitNotDelivered, QStringLiteral("Передано не все: %1").arg(progress.trouble));
    else
        retryOrEnd(ExitNoAnswer, QStringLiteral("Абонент '%1' не отвечает").arg(target.abonent));
}

void CDeliveryCall::retryOrEnd(int exitCode, const QString &trouble)
{
    if (retriesLeft == 0)
        return end(exitCode, trouble);
    if (retriesLeft > 0)
        --retriesLeft;
    console.error(QStringLiteral("%1. Повтор через %2").arg(trouble, Global::timeStringSec(retryDelay)));
    QTimer::singleShot(retryDelay * 1000, this, &CDeliveryCall::call);
    messenger.plugin()->incCallTimeout(&retryDelay); // for the next time
}

void CDeliveryCall::end(int exitCode, const QString &text)
{
    if (isOver)
        return;
    isOver = true;
    progressTimer.stop();
    keepTimer.stop();
    noWord.stop();
    console.setLiveRows({});
    if (exitCode != ExitDone && (delivery.hasAny(CDelivery::Confirmed) || delivery.hasAny(CDelivery::Failed)))
        showOutcomes();
    console.line(text, exitCode == ExitDone ? CConsole::Results : CConsole::Errors);
    emit over(exitCode);
}

/// Every item has been confirmed or has failed.
void CDeliveryCall::endDone()
{
    if (!delivery.hasAny(CDelivery::Failed))
        return end(ExitDone, summary());
    if (delivery.hasAny(CDelivery::Confirmed))
        console.line(summary());
    end(ExitNotDelivered, QStringLiteral("Передано не все"));
}

/// What has been delivered and what has not, item by item.
void CDeliveryCall::showOutcomes()
{
    for (std::size_t i = 0; i < delivery.items().size(); ++i) {
        const CDelivery::Item &item = delivery.items()[i];
        const QString title = item.isText ? item.title : item.path;
        QString failure;
        const CDelivery::Outcome outcome = delivery.outcomeOf(int(i), &failure);
        if (outcome == CDelivery::Confirmed)
            console.line(QStringLiteral("Передано: %1").arg(title));
        else if (outcome == CDelivery::Failed)
            console.error(QStringLiteral("Не передано: %1: %2").arg(title, failure));
        else
            console.error(QStringLiteral("Не передано: %1").arg(title));
    }
}

QString CDeliveryCall::summary() const
{
    qint64 bytes = 0;
    int count = 0;
    for (std::size_t i = 0; i < delivery.items().size(); ++i) {
        if (delivery.outcomeOf(int(i)) != CDelivery::Confirmed)
            continue;
        bytes += delivery.items()[i].size;
        ++count;
    }
    const QString noun = Global::declension(count, QStringLiteral("сообщение"), QStringLiteral("сообщения"),
                                            QStringLiteral("сообщений"));
    return QStringLiteral("Передано и подтверждено: %1 %2, %3 за %4, %5")
        .arg(QString::number(count), noun, Global::sizeString(bytes),
             Global::timeStringSec(clock.elapsed() / 1000),
             Global::speedString(bytes * 1000 / qMax<qint64>(clock.elapsed(), 1)));
}

/// One live row on a terminal; elsewhere a line for every tenth of an item.
void CDeliveryCall::showProgress()
{
    const CDelivery::Progress progress = delivery.progress();
    if (progress.current < 0)
        return;
    const CDelivery::Item &item = delivery.items()[std::size_t(progress.current)];
    const qint64 speed = progress.sent * 1000 / qMax<qint64>(progress.elapsedMs, 1);
    const qint64 left = speed > 0 ? (item.size - progress.sent) / speed : 0;
    const int percent = item.size > 0 ? int(double(progress.sent) * 100 / double(item.size)) : 100;
    const QString text =
        QStringLiteral("%1: %2 % (%3 из %4), %5, осталось %6")
            .arg(item.title, QString::number(percent), Global::sizeString(progress.sent),
                 Global::sizeString(item.size), Global::speedString(speed), Global::timeStringSec(left));
    if (console.isTerminal())
        return console.setLiveRows({text});
    const bool isNews = progress.current != shownItem || percent / 10 > shownTenth;
    shownItem = progress.current;
    shownTenth = percent / 10;
    if (isNews)
        console.line(text);
}
