#include "host/check/cfixture.h"

#include "common/global.h"
#include "common/logger.h"
#include "host/check/ccheckprotocol.h"
#include "transportIp/ipsettings.h"

#include <QEventLoop>
#include <QTimer>

#include <cstdio>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int ipKind = 1;
constexpr int pollMs = 2;

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

QString CFixture::load()
{
    step(QStringLiteral("загрузка модуля"));
    const QString error = library.load(arguments.channel);
    if (!error.isNull())
        return error;
    recorder.kind = library.plugin()->type();
    ownRecord = arguments.abonentData;
    silentRecord = arguments.silentAbonent;
    hasSilentRecord = arguments.hasSilentAbonent;
    if (recorder.kind == ipKind && !arguments.hasAbonentData)
        noCalls = prepareIp();
    else if (!arguments.hasAbonentData)
        noCalls = QStringLiteral("неизвестно, как вызвать абонента: нужны --abonent-data или --abonent-file");
    return QString();
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
        const QByteArray bytes = settings.toByteArray();
        if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
            return QStringLiteral("не удалось записать %1. %2").arg(file.fileName(), file.errorString());
    } else if (file.open(QIODevice::ReadOnly)) {
        settings.fromByteArray(file.readAll());
    }
    ownRecord = loopbackRecord(settings.port);
    return QString();
}

QString CFixture::open()
{
    step(QStringLiteral("создание сервера"));
    server.reset(library.plugin()->create());
    if (!server)
        return QStringLiteral("create() вернул нулевой указатель");
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
    return QString();
}

void CFixture::start()
{
    step(QStringLiteral("start()"));
    recorder.note(What::Started);
    server->start();
}

QString CFixture::stop()
{
    step(QStringLiteral("stop()"));
    const int finishedBefore = recorder.count(What::Finished);
    recorder.note(What::StopAsked);
    server->stop();
    recorder.note(What::StopReturned);
    if (!wait([&] { return recorder.count(What::Finished) > finishedBefore; }))
        return QStringLiteral("После stop() за %1 мс не пришел сигнал finished()").arg(arguments.limitMs);
    return QString();
}

void CFixture::close()
{
    step(QStringLiteral("удаление сервера"));
    recorder.note(What::ServerGone);
    server.reset();
}

QString CFixture::stopAndClose()
{
    constexpr int afterwardsMs = 30; // whatever a channel does too late
    const QString error = stop();
    if (!error.isNull())
        return error;
    pause(afterwardsMs);
    close();
    return QString();
}

QString CFixture::calledName(int number)
{
    return QStringLiteral("Вызываемый %1").arg(number);
}

void CFixture::call(int number)
{
    step(QStringLiteral("вызов %1").arg(number));
    server->connectToAbonent(calledName(number), ownRecord);
}

QString CFixture::waitConnected(int number)
{
    const QString name = calledName(number);
    const bool isConnected = wait([&] {
        return recorder.count(What::Connected, name) > 0 &&
               recorder.count(What::Connected) >= recorder.count(What::Named);
    });
    if (isConnected)
        return QString();
    return QStringLiteral("Вызов абонента '%1': за %2 мс нет сигнала connected (всего connected: %3, "
                          "notConnected: %4, протоколов создано: %5, имен узнано: %6)")
        .arg(name)
        .arg(arguments.limitMs)
        .arg(recorder.count(What::Connected))
        .arg(recorder.count(What::NotConnected))
        .arg(recorder.count(What::Create))
        .arg(recorder.count(What::Named));
}

QString CFixture::waitExchanged(int number)
{
    if (wait([&] { return recorder.count(What::Exchanged, calledName(number)) > 0; }))
        return QString();
    return QStringLiteral("Данные вызова %1 за %2 мс не вернулись целиком")
        .arg(number)
        .arg(arguments.limitMs);
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
    QEventLoop loop;
    QTimer poll;
    QTimer limit;
    limit.setSingleShot(true);
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (condition())
            loop.quit();
    });
    QObject::connect(&limit, &QTimer::timeout, &loop, &QEventLoop::quit);
    poll.start(pollMs);
    limit.start(limitMs > 0 ? limitMs : arguments.limitMs);
    loop.exec();
    return condition();
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
