#include "host/conversation/cpostoffice.h"

#include "common/csettings.h"
#include "common/global.h"
#include "common/logger.h"
#include "host/conversation/transporttasks.h"
#include "host/delivery/ccontacts.h"
#include "host/text/addresstext.h"
#include "interfaces/cchannelplugin.h"
#include "interfaces/cchannelserver.h"
#include "interfaces/cjournal.h"
#include "transportIp/ipsettings.h"

namespace {

constexpr int sweepMs = 5000;
constexpr int liveMs = 100;
constexpr int soonMs = 200;          // after a connection that was of use
constexpr int callReserveMs = 20000; // beyond what the channel may take to connect

QString sourceName()
{
    return QStringLiteral("Исходящие");
}

} // namespace

CPostOffice::CPostOffice(const Around &with) : around(with)
{
    // Workers emit two of these from their own threads; being connected to an object of this thread,
    // they arrive here.
    CChannelServer *server = around.server;
    connect(server, SIGNAL(connected(QString, int)), this, SLOT(connected(QString, int)));
    connect(server, SIGNAL(notConnected(QString)), this, SLOT(notConnected(QString)));
    connect(server, SIGNAL(disconnected(QString, int, bool)), this, SLOT(disconnected(QString, int, bool)));
    connect(&watcher, &CLateWatcher::changed, this, &CPostOffice::lookAtTasks);
    connect(&sweep, &QTimer::timeout, this, &CPostOffice::lookAtTasks);
    connect(&live, &QTimer::timeout, this, &CPostOffice::showLive);
}

void CPostOffice::begin()
{
    Outbox::sweep(around.level);
    const QDir tasks = TransportTasks::directory(around.level);
    if (around.only.isEmpty()) // else it may soon be over
        watcher.hurry();
    if (Global::makePath(tasks))
        watcher.watch({tasks.absolutePath()});
    sweep.start(sweepMs);
    lookAtTasks();
    const QStringList numbers = Outbox::numbers(around.level);
    for (const QString &number : numbers)
        take(number, false, number != around.fresh);
}

void CPostOffice::lookAtTasks()
{
    for (const TransportTask &task : TransportTasks::take(around.level)) {
        if (task.kind == TransportTask::Deliver)
            take(task.number, true, false);
        else
            withdraw(task.number);
    }
}

/// Brings an entry of the outbox into its queue.
///
/// @param isNow the user wants it tried at once
/// @param isOld another process may have tried to deliver it
void CPostOffice::take(const QString &number, bool isNow, bool isOld)
{
    const std::shared_ptr<COutboxEntry> entry = COutboxEntry::load(Outbox::directory(around.level), number);
    if (!entry)
        return;
    const QString filteredName = Global::filterName(entry->abonent);
    if (!around.only.isEmpty() && filteredName != around.only)
        return;
    if (entry->isDone()) { // a crash has come between the last confirmation and the removal
        entry->remove();
        return;
    }
    Route &way = route(entry->abonent);
    if (!way.queue->add(entry, isOld))
        way.queue->retry(number);
    if (isNow) {
        way.retry.stop();
        way.delay = 0;
        around.plugin->decCallTimeout(&way.delay); // down to the shortest that the channel allows
    }
    consider(way);
}

void CPostOffice::withdraw(const QString &number)
{
    for (auto &[name, way] : routes) {
        Q_UNUSED(name)
        way->queue->withdraw(number);
    }
    const std::shared_ptr<COutboxEntry> entry = COutboxEntry::load(Outbox::directory(around.level), number);
    if (entry && !entry->remove())
        debug(QStringLiteral("CPostOffice"), QStringLiteral("Не удалось удалить %1").arg(entry->directory),
              DebugAlways, DebugFlagNone);
}

CPostOffice::Route &CPostOffice::route(const QString &name)
{
    std::unique_ptr<Route> &way = routes[Global::filterName(name)];
    if (!way) {
        way = std::make_unique<Route>();
        Route *made = way.get();
        made->name = name;
        made->queue = around.queues->of(Global::filterName(name));
        around.plugin->decCallTimeout(&made->delay);
        made->retry.setSingleShot(true);
        made->noWord.setSingleShot(true);
        connect(&made->retry, &QTimer::timeout, this, [this, made] { consider(*made); });
        connect(&made->noWord, &QTimer::timeout, this, [this, made] { callEnded(*made, false); });
    }
    return *way;
}

/// Calls, if there is a reason to.
void CPostOffice::consider(Route &way)
{
    if (!way.isCalling && !way.retry.isActive() && !way.queue->isAttached() && way.queue->hasWaiting())
        call(way);
}

void CPostOffice::call(Route &way)
{
    AbonentIpSettings settings;
    const auto [address, port] = way.queue->address();
    if (!address.isEmpty()) {
        settings.address = address;
        settings.port = port;
    }
    if (settings.address.isEmpty()) {
        const std::optional<CContact> contact = around.contacts->find(way.name);
        settings.address = contact ? contact->address : QString();
        settings.port = contact ? contact->port : settings.port;
    }
    way.isCalling = true;
    way.wasConnected = false;
    way.connection = -1;
    way.queue->takeTrouble();
    if (settings.address.isEmpty()) {
        way.queue->setTrouble(
            CSendQueue::NoAnswer,
            QStringLiteral("Адрес абонента '%1' не известен: abonent contact add").arg(way.name));
        return callEnded(way, false);
    }
    if (!around.server->isHardwareOn() || !around.server->hasFreeChannel()) {
        way.queue->setTrouble(CSendQueue::NoAnswer, QStringLiteral("Нет свободного канала"));
        return callEnded(way, false);
    }
    way.target = addressText(settings.address, settings.port);
    if (around.takeReason)
        around.takeReason(way.name); // of the call before
    CSettings limits;
    way.noWord.start(limits.detailsTransportIpThreadStartTimeout() +
                     limits.detailsTransportIpConnectTimeout() + callReserveMs);
    ++calls;
    around.server->connectToAbonent(way.name, settings.toByteArray());
}

void CPostOffice::connected(const QString &abonentName, int connectionId)
{
    const auto found = routes.find(Global::filterName(abonentName));
    if (found == routes.end())
        return;
    Route &way = *found->second;
    live.start(liveMs);
    if (!way.isCalling || way.wasConnected)
        return; // it has called us; the conversation sends what there is
    way.noWord.stop();
    way.wasConnected = true;
    way.connection = connectionId;
    around.plugin->decCallTimeout(&way.delay);

    // Reached by an address that was given with the message: the next time the name will do.
    const std::optional<CContact> contact = around.contacts->find(way.name);
    const auto [address, port] = way.queue->address();
    if (contact && contact->address.isEmpty() && !address.isEmpty())
        around.contacts->add(way.name, address, port);
}

void CPostOffice::notConnected(const QString &abonentName)
{
    const auto found = routes.find(Global::filterName(abonentName));
    if (found != routes.end() && found->second->isCalling)
        callEnded(*found->second, false);
}

void CPostOffice::disconnected(const QString &abonentName, int connectionId, bool wasUseful)
{
    for (auto &[name, way] : routes) {
        const bool isOurs =
            way->connection >= 0 ? connectionId == way->connection : Global::filterName(abonentName) == name;
        if (way->isCalling && isOurs)
            callEnded(*way, wasUseful);
    }
}

void CPostOffice::queueChanged(const QString &filteredName)
{
    const auto found = routes.find(filteredName);
    if (found != routes.end())
        consider(*found->second);
}

/// "Абонент 'Борис' не отвечает, 10.0.0.1:18001: в соединении отказано"
QString CPostOffice::noAnswer(const Route &way) const
{
    const QString reason = around.takeReason ? around.takeReason(way.name) : QString();
    const QString text = QStringLiteral("Абонент '%1' не отвечает").arg(way.name);
    return reason.isEmpty() ? text : QStringLiteral("%1, %2: %3").arg(text, way.target, reason);
}

/// The call is over, whatever came of it.
void CPostOffice::callEnded(Route &way, bool wasUseful)
{
    way.isCalling = false;
    way.connection = -1;
    way.noWord.stop();
    if (way.queue->isAttached() || !way.queue->hasWaiting())
        return;
    CSendQueue::Trouble trouble = way.queue->takeTrouble();
    if (trouble.code == CSendQueue::NoTrouble) {
        trouble = way.wasConnected
                      ? CSendQueue::Trouble{CSendQueue::NotDelivered, QStringLiteral("Соединение потеряно")}
                      : CSendQueue::Trouble{CSendQueue::NoAnswer, noAnswer(way)};
    }
    if (wasUseful && trouble.code == CSendQueue::NotDelivered)
        return way.retry.start(soonMs); // it goes forward: no reason to wait, or to tell
    way.queue->noteAttempt(trouble);
    around.journal->addRecord(JournalEvent, sourceName(),
                              QStringLiteral("Сообщения для '%1' ждут: %2. Следующая попытка через %3")
                                  .arg(way.name, trouble.reason, Global::timeStringSec(way.delay)));
    way.retry.start(way.delay * 1000);
    around.plugin->incCallTimeout(&way.delay); // for the next time
}

void CPostOffice::showLive()
{
    bool isAny = false;
    for (auto &[name, way] : routes) {
        Q_UNUSED(name)
        isAny |= way->queue->isAttached();
        way->queue->showLive();
    }
    if (!isAny)
        live.stop();
}
