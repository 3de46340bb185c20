#include "host/check/cfixture.h"

#include "common/global.h"
#include "common/logger.h"
#include "host/check/ccheckprotocol.h"
#include "host/check/fixedaddress.h"
#include "host/check/rules.h"
#include "transportIp/ipsettings.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <algorithm>
#include <cstdio>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int ipKind = 1;
constexpr int pollMs = 2;
constexpr int promptMs = 1000; // asleep, so that a busy machine does not count
constexpr int slackMs = 300;   // between two looks, on a busy machine

/// Binds a socket to a free loopback port outside the range that the system gives to callers.
/// @return its descriptor, -1 when none is free
int bindFreePort(int *port)
{
    constexpr int first = 20000;
    constexpr int count = 10000;
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    for (int i = 0; i < count && descriptor >= 0; ++i) {
        *port = first + (::getpid() * 7 + i) % count;
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(quint16(*port));
        if (::bind(descriptor, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0)
            return descriptor;
    }
    return -1;
}

QByteArray loopbackRecord(int port)
{
    AbonentIpSettings abonent;
    abonent.address = QStringLiteral("127.0.0.1");
    abonent.port = port;
    return abonent.toByteArray();
}

} // namespace

EntryPoints entryPoints(const QString &fileName)
{
    QLibrary library(fileName);
    library.setLoadHints(QLibrary::ResolveAllSymbolsHint | QLibrary::PreventUnloadHint);
    return {reinterpret_cast<ApiVersionFunction>(library.resolve(apiVersionSymbol)),
            reinterpret_cast<InitDebugFunction>(library.resolve(initDebugSymbol)),
            reinterpret_cast<InstanceFunction>(library.resolve(instanceSymbol)),
            reinterpret_cast<DeleteInstanceFunction>(library.resolve(deleteInstanceSymbol))};
}

CFixture::CFixture(const CheckArguments &given) : arguments(given) {}

CFixture::~CFixture()
{
    if (closedPort >= 0)
        ::close(closedPort);
    server.release(); // NOLINT: what a failed check leaves running is still used by its threads
}

void CFixture::load()
{
    step(QStringLiteral("загрузка модуля"));
    require(library.load(arguments.channel));
    recorder.kind = library.plugin()->type();
    ownRecord = arguments.abonentData;
    silentRecord = arguments.silentAbonent;
    hasSilentRecord = arguments.hasSilentAbonent;
    if (recorder.kind == ipKind && !arguments.hasAbonentData)
        noCalls = prepareIp();
    else if (!arguments.hasAbonentData)
        noCalls = QStringLiteral("неизвестно, как вызвать абонента: нужны --abonent-data или --abonent-file");
}

/// The kind that this program knows: a free port in channelIp.conf, a record that leads to it.
/// @return null on success, else why there can be no calls
QString CFixture::prepareIp()
{
    ChannelIpSettings settings;
    int freePort = 0;
    int portWithoutListener = 0;
    closedPort = bindFreePort(&portWithoutListener);
    const int reserved = bindFreePort(&freePort);
    if (closedPort < 0 || reserved < 0)
        return QStringLiteral("нет свободного порта");
    ::close(reserved);

    silentRecord = loopbackRecord(portWithoutListener);
    hasSilentRecord = true;
    QFile file(Global::channelIpSettingsFilePath());
    if (!file.exists()) { // else the user's own
        settings.port = freePort;
        isAddressOurs = true;
        const QByteArray bytes = settings.toByteArray();
        if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
            return QStringLiteral("не удалось записать %1. %2").arg(file.fileName(), file.errorString());
    } else if (file.open(QIODevice::ReadOnly)) {
        settings.fromByteArray(file.readAll());
    }
    ownRecord = loopbackRecord(settings.port);
    return QString();
}

void CFixture::open()
{
    step(QStringLiteral("создание сервера"));
    server.reset(library.plugin()->create());
    require(server != nullptr, QStringLiteral("create() вернул нулевой указатель"));
    server->monitorHandle = CRecorder::ownHandle;
    server->monitor = &recorder;
    server->journal = &recorder;
    server->protocolFactory = new CCheckProtocolFactory(recorder);

    // Without a receiver, so that they are heard in the thread that emits them.
    CRecorder *const seen = &recorder;
    QObject::connect(server.get(), &CChannelServer::connected,
                     [seen](const QString &name, int id) { seen->note(What::Connected, id, name); });
    QObject::connect(server.get(), &CChannelServer::notConnected,
                     [seen](const QString &name) { seen->note(What::NotConnected, 0, name); });
    QObject::connect(server.get(), &CChannelServer::disconnected,
                     [seen](const QString &name, int id, bool wasUseful) {
                         seen->note(What::Disconnected, id, name, wasUseful);
                     });
    QObject::connect(server.get(), &CChannelServer::finished, [seen] { seen->note(What::Finished); });
}

void CFixture::start(const Behaviour &behaviour)
{
    recorder.setBehaviour(behaviour);
    if (!server)
        open();
    recorder.note(What::Started);
    ask(QStringLiteral("start()"), [this] { server->start(); });
    if (!isAddressOurs)
        tellAddresses();
}

void CFixture::stop()
{
    step(QStringLiteral("stop()"));
    const int finishedBefore = recorder.count(What::Finished);
    const CStopwatch watch;
    recorder.note(What::StopAsked);
    server->stop();
    recorder.note(What::StopReturned);
    if (watch.asleep() > promptMs)
        recorder.complain("late", QStringLiteral("stop() вернулся через %1 мс").arg(watch.elapsed()));
    const bool isFinished = wait([&] { return recorder.count(What::Finished) > finishedBefore; });
    if (!isFinished || watch.elapsed() > arguments.limitMs + slackMs)
        throw CheckFailure{
            QStringLiteral("После stop() за %1 мс не пришел сигнал finished()").arg(arguments.limitMs),
            "stop-in-time", true};
}

void CFixture::close()
{
    ask(QStringLiteral("удаление сервера"), [this] {
        recorder.note(What::ServerGone);
        server.reset();
    });
}

void CFixture::judge() const
{
    const BrokenRule broken = firstBroken(recorder, arguments.known, Moment::AtTheEnd);
    if (broken.name)
        fail(broken.text, broken.name);
}

void CFixture::stopAndClose()
{
    constexpr int afterwardsMs = 30; // whatever a channel does too late
    stop();
    pause(afterwardsMs);
    close();
    judge();
}

QString CFixture::calledName(int number)
{
    return QStringLiteral("Вызываемый %1").arg(number);
}

void CFixture::call(int number)
{
    recorder.note(What::Call, 0, calledName(number));
    ask(QStringLiteral("вызов %1").arg(number),
        [&] { server->connectToAbonent(calledName(number), ownRecord); });
}

void CFixture::disconnect(const QString &name, int connectionId)
{
    recorder.note(What::Disconnect);
    ask(QStringLiteral("disconnectFromAbonent('%1', %2)").arg(name).arg(connectionId),
        [&] { server->disconnectFromAbonent(name, connectionId); });
}

CFixture::Prompt::~Prompt()
{
    if (watch.asleep() > promptMs)
        fixture->recorder.complain("prompt",
                                   QStringLiteral("%1: вернулся через %2 мс").arg(what).arg(watch.elapsed()));
}

void CFixture::waitConnected(int number)
{
    const QString name = calledName(number);
    const auto isConnected = [&] {
        return recorder.count(What::Connected, name) > 0 &&
               recorder.count(What::Connected) >= recorder.count(What::Named);
    };
    expect(isConnected, [&] {
        return QStringLiteral("Вызов абонента '%1': за %2 мс нет сигнала connected (всего connected: %3, "
                              "notConnected: %4, протоколов создано: %5, имен узнано: %6)")
            .arg(name)
            .arg(arguments.limitMs)
            .arg(recorder.count(What::Connected))
            .arg(recorder.count(What::NotConnected))
            .arg(recorder.count(What::Create))
            .arg(recorder.count(What::Named));
    });
}

void CFixture::waitExchanged(int number)
{
    expect([&] { return recorder.count(What::Exchanged, calledName(number)) > 0; },
           [&] {
               return QStringLiteral("Данные вызова %1 за %2 мс не вернулись целиком")
                   .arg(number)
                   .arg(arguments.limitMs);
           });
}

int CFixture::connectionOf(int number) const
{
    int id = 0;
    for (const Event &event : recorder.events()) {
        if (event.what == What::Connected && event.text == calledName(number))
            id = event.number;
    }
    return id;
}

bool CFixture::wait(const std::function<bool()> &condition, int limitMs)
{
    const int limit = limitMs > 0 ? limitMs : arguments.limitMs;
    QElapsedTimer clock;
    clock.start();
    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (clock.hasExpired(limit) || condition())
            loop.quit();
    });
    poll.start(pollMs);
    loop.exec();
    return clock.elapsed() <= limit + slackMs && condition();
}

void CFixture::expect(const std::function<bool()> &condition, const std::function<QString()> &text)
{
    if (!wait(condition))
        throw CheckFailure{text(), nullptr, true};
}

void CFixture::pause(int ms)
{
    wait([] { return false; }, ms);
}

void CFixture::step(const QString &text)
{
    std::fputs(QStringLiteral("@step %1\n").arg(text).toUtf8().constData(), stdout);
    std::fflush(stdout);
}

/// Two checks at a time would be in each other's way at an address that the channel does not choose
/// anew. Tells the parent that there is one: a listening or bound socket, or an opened device.
void CFixture::tellAddresses() const
{
    const QString address = fixedAddress();
    if (!address.isNull())
        std::fputs(QStringLiteral("@address %1\n").arg(address).toUtf8().constData(), stdout);
}
