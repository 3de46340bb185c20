#include "host/delivery/cdeliverycall.h"

#include "common/csettings.h"
#include "common/global.h"
#include "host/console/cconsole.h"
#include "interfaces/cchannelplugin.h"
#include "interfaces/cchannelserver.h"
#include "transportIp/ipsettings.h"

namespace {

constexpr int progressMs = 50;
constexpr int keepMs = 10000;
constexpr int callReserveMs = 20000; // beyond what the channel may take to connect

} // namespace

CDeliveryCall::CDeliveryCall(const CallTarget &whom, CDelivery &what, CChannelServer &through,
                             const CChannelPlugin &ofKind, CConsole &shownOn)
    : target(whom), delivery(what), server(through), plugin(ofKind), console(shownOn),
      retriesLeft(whom.retries)
{
    // Workers emit two of these from their own threads; being connected to an object of this thread,
    // they arrive here.
    connect(&server, SIGNAL(connected(QString, int)), this, SLOT(connected(QString, int)));
    connect(&server, SIGNAL(notConnected(QString)), this, SLOT(notConnected(QString)));
    connect(&server, SIGNAL(disconnected(QString, int, bool)), this, SLOT(disconnected(QString, int, bool)));

    callTimeout.setSingleShot(true);
    connect(&callTimeout, &QTimer::timeout, this, &CDeliveryCall::callEnded);
    connect(&progressTimer, &QTimer::timeout, this, &CDeliveryCall::showProgress);
    connect(&keepTimer, &QTimer::timeout, this, [this] { server.keepAliveConnection(connection); });
}

void CDeliveryCall::begin()
{
    clock.start();
    plugin.decCallTimeout(&retryDelay); // down to the shortest that the channel allows
    call();
}

void CDeliveryCall::cancel()
{
    end(Cancelled, QStringLiteral("Передача прервана"));
}

void CDeliveryCall::call()
{
    if (isOver)
        return;
    isCalling = true;
    wasConnected = false;
    if (!server.isHardwareOn() || !server.hasFreeChannel())
        return callEnded();
    AbonentIpSettings settings;
    settings.address = target.address;
    settings.port = target.port;
    CSettings limits;
    callTimeout.start(limits.detailsTransportIpThreadStartTimeout() +
                      limits.detailsTransportIpConnectTimeout() + callReserveMs);
    server.connectToAbonent(target.abonent, settings.toByteArray());
}

void CDeliveryCall::connected(const QString &abonentName, int connectionId)
{
    if (!isCalling || Global::filterName(abonentName) != Global::filterName(target.abonent))
        return; // somebody is calling us meanwhile
    callTimeout.stop();
    wasConnected = true;
    connection = connectionId;
    plugin.decCallTimeout(&retryDelay);
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
    callTimeout.stop();
    progressTimer.stop();
    keepTimer.stop();
    showProgress();

    const CDelivery::Progress progress = delivery.progress();
    switch (progress.state) {
    case CDelivery::Done:
        return endDone();
    case CDelivery::SomebodyElse:
        return end(SomebodyElse, progress.trouble);
    case CDelivery::UnderWay:
        break;
    }
    if (wasConnected)
        retryOrEnd(NotDelivered, QStringLiteral("Передано не все: %1").arg(progress.trouble));
    else
        retryOrEnd(NoAnswer, QStringLiteral("Абонент '%1' не отвечает").arg(target.abonent));
}

void CDeliveryCall::retryOrEnd(End how, const QString &trouble)
{
    if (retriesLeft == 0)
        return end(how, trouble);
    if (retriesLeft > 0)
        --retriesLeft;
    console.error(QStringLiteral("%1. Повтор через %2").arg(trouble, Global::timeStringSec(retryDelay)));
    QTimer::singleShot(retryDelay * 1000, this, &CDeliveryCall::call);
    plugin.incCallTimeout(&retryDelay); // for the next time
}

void CDeliveryCall::end(End how, const QString &text)
{
    if (isOver)
        return;
    isOver = true;
    progressTimer.stop();
    keepTimer.stop();
    callTimeout.stop();
    console.setLiveRows({});
    if (how != Delivered && (delivery.hasAny(CDelivery::Confirmed) || delivery.hasAny(CDelivery::Failed)))
        showOutcomes();
    console.line(text, how == Delivered ? CConsole::Results : CConsole::Errors);
    emit over(how);
}

/// Every item has been confirmed or has failed.
void CDeliveryCall::endDone()
{
    if (!delivery.hasAny(CDelivery::Failed))
        return end(Delivered, summary());
    if (delivery.hasAny(CDelivery::Confirmed))
        console.line(summary());
    end(NotDelivered, QStringLiteral("Передано не все"));
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
