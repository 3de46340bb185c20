#include "host/health/callwalk.h"

#include "common/csettings.h"
#include "common/descriptor.h"
#include "common/global.h"
#include "host/cchannellibrary.h"
#include "host/commands/calltarget.h"
#include "host/conversation/cmessageprotocolfactory.h"
#include "host/delivery/ccontacts.h"
#include "host/delivery/cidentity.h"
#include "host/delivery/fingerprintwords.h"
#include "host/settings/channelsettingsfile.h"
#include "host/text/reasons.h"
#include "interfaces/cchannelmonitor.h"
#include "interfaces/cchannelserver.h"
#include "interfaces/cjournal.h"
#include "transportIp/ipsettings.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <cerrno>
#include <cstring>
#include <utility>

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr int ipKind = 1;
constexpr int callLimitMs = 30000;
constexpr int mostUnnamed = 32;

struct SilentMonitor final : CChannelMonitor
{
    int addConnection(int, const QString &, const QString &) override { return 1; }
    void removeConnection(int) override {}
    void setState(int, const QString &) override {}
    void addReceived(int, int) override {}
    void addSent(int, int) override {}
};

struct SilentJournal final : CJournal
{
    void addRecord(int, const QString &, const QString &) override {}
};

// How a TCP connection fails, and what that means.
struct TcpFailure
{
    int reason; // errno
    const char *code;
    const char *text;
    const char *advice;
};

constexpr TcpFailure tcpFailures[] = {
    {ECONNREFUSED, "refused", "отказ: машина отвечает, но вызовов на этом порту никто не ждет",
     "Запустите на той стороне abonent listen и сверьте порт (там: abonent settings show). Так отвечает и "
     "сетевой "
     "экран, который отклоняет вызовы"},
    {ETIMEDOUT, "no-answer", "нет ответа",
     "Машина выключена, адрес не тот, или сетевой экран отбрасывает вызовы: разрешите на той стороне "
     "входящие на "
     "этот порт TCP"},
    {EHOSTUNREACH, "host-unreachable", "машина недоступна",
     "Машина выключена или не в этой сети; проверьте адрес и путь к ней: ip route get АДРЕС"},
    {ENETUNREACH, "network-unreachable", "к этой сети нет пути", "Проверьте свою сеть: ip address, ip route"},
    {EINVAL, "network-unreachable", "путь к этой сети закрыт", "Проверьте свою сеть: ip route"},
    {EACCES, "not-permitted", "вызов запрещен на этой машине",
     "Проверьте свой сетевой экран: nft list ruleset"},
    {EPERM, "not-permitted", "вызов запрещен на этой машине",
     "Проверьте свой сетевой экран: nft list ruleset"},
};

Finding tcpFailure(const QString &where, int reason)
{
    for (const TcpFailure &failure : tcpFailures) {
        if (failure.reason == reason)
            return Finding::error(failure.code,
                                  where + QStringLiteral(": ") + QString::fromUtf8(failure.text),
                                  QString::fromUtf8(failure.advice));
    }
    return Finding::error("no-connection", where + QStringLiteral(": ") + reasonOf(reason),
                          QStringLiteral("Проверьте сеть на обеих сторонах"));
}

/// An address that can be connected to.
struct Address
{
    sockaddr_storage name = {};
    socklen_t size = 0;

    QString text() const
    {
        char host[NI_MAXHOST] = {};
        ::getnameinfo(reinterpret_cast<const sockaddr *>(&name), size, host, sizeof(host), nullptr, 0,
                      NI_NUMERICHOST);
        return QString::fromLatin1(host);
    }
};

/// Blocks for as long as the system's resolver does.
std::vector<Address> lookedUp(const CallTarget &target)
{
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    std::vector<Address> result;
    if (::getaddrinfo(target.address.toUtf8().constData(), QByteArray::number(target.port).constData(),
                      &hints, &found) != 0)
        return result;
    for (const addrinfo *entry = found; entry; entry = entry->ai_next) {
        Address address;
        std::memcpy(&address.name, entry->ai_addr, entry->ai_addrlen);
        address.size = entry->ai_addrlen;
        result.push_back(address);
    }
    ::freeaddrinfo(found);
    return result;
}

/// Connects and hangs up. @return 0, or errno; ETIMEDOUT when the limit is over
int tryConnect(const Address &address, int limitMs)
{
    const CDescriptor probe(::socket(address.name.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (::connect(probe.get(), reinterpret_cast<const sockaddr *>(&address.name), address.size) == 0)
        return 0;
    if (errno != EINPROGRESS)
        return errno;
    pollfd wait = {probe.get(), POLLOUT, 0};
    if (Io::retried([&] { return ::poll(&wait, 1, limitMs); }) == 0)
        return ETIMEDOUT;
    int reason = 0;
    socklen_t size = sizeof(reason);
    ::getsockopt(probe.get(), SOL_SOCKET, SO_ERROR, &reason, &size);
    return reason;
}

/// The call as such: through the channel, with the conversation that asks only.
/// @return null when the call was placed, else why it could not be, in Russian
QString place(const CallTarget &target, bool *isAllowed, PingResult *result)
{
    const QDir directory = Global::channelPluginsDir();
    std::vector<std::unique_ptr<CChannelLibrary>> libraries;
    CChannelPlugin *plugin = nullptr;
    QString trouble = QStringLiteral("В %1 нет модуля IP-канала").arg(directory.absolutePath());
    const QStringList names = directory.entryList({QStringLiteral("*.so")}, QDir::Files, QDir::Name);
    for (const QString &name : names) {
        libraries.push_back(std::make_unique<CChannelLibrary>());
        const QString error = libraries.back()->load(directory.absoluteFilePath(name));
        if (error.isNull() && libraries.back()->plugin()->type() == ipKind)
            plugin = libraries.back()->plugin();
        trouble = error.isNull() ? trouble : error;
    }
    if (!plugin)
        return trouble;
    CIdentity identity;
    trouble = identity.prepare();
    if (!trouble.isNull())
        return trouble;

    SilentMonitor monitor;
    SilentJournal journal;
    CContacts contacts;
    CUnnamedCallers unnamed(mostUnnamed, mostUnnamed);
    CMessageProtocol::Context around;
    around.ownName = GeneralSettings::chosenName(QString());
    around.ownPort = quint16(ChannelSettingsFile::read().settings.port);
    around.identity = &identity;
    around.contacts = &contacts;
    around.journal = &journal;
    around.originOf = [](const QString &label) { return label; };
    around.unnamed = &unnamed;
    around.ping = result;

    const std::unique_ptr<CChannelServer> server(plugin->create());
    server->monitor = &monitor;
    server->journal = &journal;
    server->protocolFactory = new CMessageProtocolFactory(around); // the server's from now on
    QEventLoop loop;
    bool isStopping = false;
    const auto stop = [&] {
        if (!std::exchange(isStopping, true))
            server->stop();
    };
    QObject::connect(server.get(), &CChannelServer::notConnected, &loop, stop, Qt::QueuedConnection);
    QObject::connect(server.get(), &CChannelServer::disconnected, &loop, stop, Qt::QueuedConnection);
    QObject::connect(server.get(), &CChannelServer::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(callLimitMs, &loop, stop);
    server->start();
    *isAllowed = server->canCheckOnline();
    AbonentIpSettings record;
    record.address = target.address;
    record.port = target.port;
    if (*isAllowed)
        server->connectToAbonent(target.abonent, record.toByteArray());
    else
        QTimer::singleShot(0, &loop, stop);
    loop.exec();
    return QString();
}

/// Steps of the conversation. Each is done when the next stage was reached.
struct TalkStep
{
    const char *step;
    const char *title;
    PingResult::Stage reached; // when it is done
    const char *done;
    const char *code; // when it is where the call stops
    const char *advice;
};

constexpr TalkStep talkSteps[] = {
    {"call", "вызов", PingResult::Connected, "канал соединился", "not-connected",
     "Повторите: TCP только что соединялся. Если так и дальше, на порту отвечает не абонент: сверьте адрес и "
     "порт"},
    {"tls", "шифрование", PingResult::Secured, "TLS установлен, ключ той стороны доказан", "no-tls",
     "На этом адресе и порту отвечает не абонент или программа с протоколом версии 1: сверьте адрес и "
     "версии"},
    {"greeting", "приветствие", PingResult::Greeted, "абонент назвался", "no-greeting",
     "На той стороне посмотрите abonent log и abonent contact list: не заблокированы ли вы, тот ли записан "
     "ключ "
     "(abonent contact trust), не закрыт ли прием для незнакомых (Contacts/policy)"},
    {"name", "имя", PingResult::Named, "это вызванный абонент", "somebody-else",
     "Адрес принадлежит другому: задайте верный (abonent contact add ИМЯ АДРЕС) или вызывайте по его имени"},
    {"key", "ключ", PingResult::Believed, "ключ записан за этим именем", "key-differs",
     "Сверьте слова ключа по телефону; если сошлись - abonent contact trust ИМЯ СЛОВА"},
};

CallWalk::End tellTalk(const PingResult &result, const CallWalk::Report &report)
{
    for (const TalkStep &step : talkSteps) {
        if (result.reached < step.reached) {
            const QString trouble =
                result.trouble.isEmpty() ? QStringLiteral("соединение потеряно") : result.trouble;
            const QString text =
                result.isTurnedAway ? QStringLiteral("та сторона ответила: %1").arg(trouble) : trouble;
            report(step.step, step.title, Finding::error(step.code, text, QString::fromUtf8(step.advice)));
            return result.reached == PingResult::Called ? CallWalk::Unreachable : CallWalk::SomebodyElse;
        }
        const bool isKey = step.reached == PingResult::Believed;
        report(step.step, step.title,
               Finding::good(isKey ? shownFingerprint(result.key) : QString::fromUtf8(step.done)));
    }
    if (!result.isAnswered) {
        report("echo", "туда и обратно",
               Finding::error(
                   "no-echo", QStringLiteral("ответа на проверку нет: %1").arg(result.trouble),
                   QStringLiteral(
                       "Связь обрывается или та сторона занята; повторите, посмотрите там abonent log")));
        return CallWalk::Unreachable;
    }
    report("echo", "туда и обратно",
           Finding::good(QStringLiteral("%1 мс, абонент '%2', версия %3")
                             .arg(QString::number(double(result.roundTripUs) / 1000, 'f', 1), result.name,
                                  result.program)));
    return CallWalk::Answered;
}

/// The address to call. @return whether there is one
bool findAddress(CallTarget *target, const CallWalk::Report &report)
{
    CContacts contacts;
    const std::optional<CContact> contact = contacts.find(target->abonent);
    const auto stop = [&report](const char *code, const QString &text, const QString &advice) {
        report("contact", "контакт", Finding::error(code, text, advice));
        return false;
    };
    const bool isGiven = !target->address.isEmpty();
    if (!contact && !isGiven)
        return stop("unknown-name", QStringLiteral("Контакта '%1' нет").arg(target->abonent),
                    QStringLiteral("abonent contact add %1 АДРЕС; известные имена: abonent contact list")
                        .arg(target->abonent));
    if (contact && contact->isBlocked)
        return stop("blocked", QStringLiteral("Абонент '%1' заблокирован").arg(contact->name),
                    QStringLiteral("abonent contact unblock %1").arg(contact->name));
    if (!isGiven && contact->address.isEmpty())
        return stop("no-address", QStringLiteral("У контакта '%1' нет адреса").arg(contact->name),
                    QStringLiteral("abonent contact add %1 АДРЕС").arg(contact->name));
    if (!isGiven) {
        target->address = contact->address;
        target->port = contact->port;
    }
    const QString who = !contact ? QStringLiteral("'%1' еще не контакт").arg(target->abonent)
                        : contact->key.isEmpty()
                            ? QStringLiteral("'%1', ключ еще не известен").arg(contact->name)
                            : QStringLiteral("'%1', ключ известен").arg(contact->name);
    report("contact", "контакт",
           Finding::good(QStringLiteral("%1, адрес %2, порт %3")
                             .arg(who, target->address, QString::number(target->port))));
    return true;
}

bool connectsTo(const CallTarget &target, const CallWalk::Report &report)
{
    const std::vector<Address> addresses = lookedUp(target);
    if (addresses.empty()) {
        report(
            "address", "адрес",
            Finding::error("unknown-host", QStringLiteral("Имя машины %1 не найдено").arg(target.address),
                           QStringLiteral("Проверьте имя и DNS (getent hosts %1) или задайте адрес числами: "
                                          "abonent contact add")
                               .arg(target.address)));
        return false;
    }
    QStringList texts;
    for (const Address &address : addresses)
        texts << address.text();
    report("address", "адрес", Finding::good(texts.join(QStringLiteral(", "))));

    const int limitMs = CSettings().detailsTransportIpConnectTimeout();
    Finding failure;
    for (const Address &address : addresses) {
        QElapsedTimer clock;
        clock.start();
        const int reason = tryConnect(address, limitMs);
        const QString where = QStringLiteral("%1, порт %2").arg(address.text(), QString::number(target.port));
        if (reason == 0) {
            const QString ms = QString::number(double(clock.nsecsElapsed()) / 1e6, 'f', 1);
            report("tcp", "TCP", Finding::good(QStringLiteral("%1: соединение за %2 мс").arg(where, ms)));
            return true;
        }
        failure = tcpFailure(where, reason);
        if (reason == ETIMEDOUT)
            failure.text += QStringLiteral(" за %1 с").arg(double(clock.elapsed()) / 1000, 0, 'f', 1);
    }
    report("tcp", "TCP", failure);
    return false;
}

} // namespace

CallWalk::End CallWalk::walk(CallTarget target, const Report &report)
{
    if (Global::filterName(target.abonent).isEmpty()) {
        report("contact", "контакт",
               Finding::error("bad-name",
                              QStringLiteral("В имени '%1' нет ни букв, ни цифр").arg(target.abonent),
                              QStringLiteral("abonent contact list")));
        return NotCalled;
    }
    if (!findAddress(&target, report))
        return NotCalled;
    if (!connectsTo(target, report))
        return Unreachable;
    PingResult result;
    bool isAllowed = true;
    const QString trouble = place(target, &isAllowed, &result);
    if (!trouble.isNull()) {
        report("call", "вызов", Finding::error("cannot-call", trouble, QStringLiteral("abonent doctor")));
        return OwnTrouble;
    }
    if (!isAllowed) {
        report("call", "вызов",
               Finding::error("not-allowed",
                              QStringLiteral("Проверка связи запрещена настройкой canCheckOnline"),
                              QStringLiteral("abonent settings set canCheckOnline=true")));
        return Forbidden;
    }
    return tellTalk(result, report);
}
