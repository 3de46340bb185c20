// Doctor's looks at the port, the resident, its descriptors and the channel plug-ins.
#include "host/health/checks.h"

#include "common/descriptor.h"
#include "common/global.h"
#include "host/cchannellibrary.h"
#include "host/text/reasons.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <functional>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int ipKind = 1;
constexpr int loadLimitMs = 10000;
constexpr int spareDescriptors = 64; // files, journal, plug-ins
constexpr int fewDescriptors = 1024;

quint16 portOf(const HealthContext &around)
{
    return quint16(around.channel.settings.port);
}

/// What listening on a port comes to. @return 0, or errno
int tryPort(quint16 port)
{
    const CDescriptor probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    ::setsockopt(probe.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    const auto *name = reinterpret_cast<const sockaddr *>(&address);
    return ::bind(probe.get(), name, sizeof(address)) == 0 ? 0 : errno;
}

/// The listener on a port and the process it belongs to; its number is 0 where the rights do not tell.
struct Holder
{
    Processes::Listener listener;
    Processes::Process process;
};

Holder holderOf(quint16 port)
{
    Holder result;
    for (const Processes::Listener &listener : Processes::listeners()) {
        if (listener.port != port)
            continue;
        result.listener = listener;
        const int pid = Processes::holderOf(listener.inode);
        if (pid > 0)
            result.process = Processes::describe(pid);
        break;
    }
    return result;
}

/// The ports that the resident listens on; none also where the rights do not tell.
std::vector<int> portsOf(const Processes::Process &resident)
{
    std::vector<int> ports;
    const QSet<quint64> sockets = Processes::socketsOf(resident.pid);
    for (const Processes::Listener &listener : Processes::listeners()) {
        if (sockets.contains(listener.inode))
            ports.push_back(listener.port);
    }
    return ports;
}

/// What a child process has to say before it ends. A plug-in may crash or hang while it is loaded.
QByteArray saidByChild(const std::function<QByteArray()> &speak, QString *trouble)
{
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        *trouble = reasonOf(errno);
        return QByteArray();
    }
    const CDescriptor reading(ends[0]);
    CDescriptor writing(ends[1]);
    const pid_t child = ::fork();
    if (child == 0) {
        const int nowhere = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream)
            ::dup2(nowhere, stream);
        Io::writeAll(writing, speak());
        ::_exit(0);
    }
    if (child < 0) {
        *trouble = reasonOf(errno);
        return QByteArray();
    }
    writing.reset();
    QByteArray said;
    char buffer[4096];
    pollfd wait = {reading.get(), POLLIN, 0};
    ssize_t size = 0;
    bool isLate = false;
    do {
        isLate = Io::retried([&] { return ::poll(&wait, 1, loadLimitMs); }) == 0;
        size = isLate ? 0 : ::read(reading.get(), buffer, sizeof(buffer));
        said += QByteArray(buffer, int(qMax<ssize_t>(0, size)));
    } while (size > 0);
    if (isLate)
        ::kill(child, SIGKILL);
    int status = 0;
    Io::retried([&] { return ::waitpid(child, &status, 0); });
    if (isLate)
        *trouble = QStringLiteral("не загрузился за %1 с").arg(loadLimitMs / 1000);
    else if (WIFSIGNALED(status))
        *trouble =
            QStringLiteral("при загрузке процесс завершился аварийно, сигнал %1").arg(WTERMSIG(status));
    else if (said.isEmpty())
        *trouble = QStringLiteral("при загрузке процесс завершился, код %1").arg(WEXITSTATUS(status));
    return said;
}

/// "1\nIP-канал" of a plug-in that loads, else what is wrong.
QByteArray loaded(const QString &path)
{
    CChannelLibrary library;
    const QString error = library.load(path);
    return error.isNull()
               ? QByteArray::number(library.plugin()->type()) + '\n' + library.plugin()->name().toUtf8()
               : error.toUtf8();
}

} // namespace

Findings Checks::port(const HealthContext &around)
{
    const quint16 port = portOf(around);
    const QString other = QStringLiteral("задайте другой: abonent settings set port=N");
    const int reason = tryPort(port);
    if (reason == 0)
        return {Finding::good(QStringLiteral("%1 свободен").arg(port))};
    if (reason == EACCES)
        return {Finding::error("port-privileged", QStringLiteral("%1 доступен только системе").arg(port),
                               QStringLiteral("Дайте программе CAP_NET_BIND_SERVICE или %1").arg(other))};
    if (reason != EADDRINUSE)
        return {Finding::error("port-unusable",
                               QStringLiteral("%1: %2").arg(QString::number(port), reasonOf(reason)),
                               QStringLiteral("Проверьте сеть (ip address) или %1").arg(other))};
    const Holder holder = holderOf(port);
    const Processes::Process &process = holder.process;
    const QString who = process.pid > 0 ? Processes::nameOf(process)
                        : holder.listener.port > 0 ? QStringLiteral("процесс пользователя %1, адрес %2")
                                                         .arg(holder.listener.user, holder.listener.address)
                                                   : QStringLiteral("кто - не видно");
    const bool isResident =
        around.resident.pid > 0 &&
        (process.pid > 0 ? process.pid == around.resident.pid : around.resident.user == holder.listener.user);
    if (isResident)
        return {Finding::good(
            QStringLiteral("%1 принимает вызовы эта установка: %2").arg(QString::number(port), who))};
    if (process.program == QFile::symLinkTarget(QStringLiteral("/proc/self/exe")))
        return {Finding::attention(
            "port-taken-here",
            QStringLiteral("%1 занят этой же установкой: %2").arg(QString::number(port), who),
            QStringLiteral(
                "Если это abonent send, он скоро закончит; если abonent listen другого уровня - оставьте "
                "один из них"))};
    const QString advice = process.pid > 0
                               ? QStringLiteral("Остановите его или %1").arg(other)
                               : QStringLiteral("Кто это, покажет root: ss -ltnp 'sport = :%1'; или %2")
                                     .arg(QString::number(port), other);
    return {
        Finding::error("port-taken", QStringLiteral("%1 занят: %2").arg(QString::number(port), who), advice)};
}

Findings Checks::resident(const HealthContext &around)
{
    const Processes::Process &process = around.resident;
    if (process.pid == 0)
        return {Finding::attention(
            "no-resident", QStringLiteral("не запущен: вызовы не принимаются, исходящие не доставляются"),
            QStringLiteral("abonent listen"))};
    const QString since = process.started.isValid()
                              ? process.started.toString(QStringLiteral("dd.MM.yyyy hh:mm:ss"))
                              : QStringLiteral("неизвестно когда");
    const QString text = QStringLiteral("запущен %1, процесс %2, пользователь %3")
                             .arg(since, QString::number(process.pid), process.user);
    const std::vector<int> ports = portsOf(process);
    const int open = Processes::openDescriptors(process.pid);
    if (open < 0)
        return {Finding::good(text + QStringLiteral("; его порт и дескрипторы видны только ему и root"))};
    if (ports.empty())
        return {
            Finding::error("not-listening", text + QStringLiteral("; вызовы не принимает"),
                           QStringLiteral("Посмотрите, почему: abonent log --source CIpServer --last 20"))};
    if (std::find(ports.begin(), ports.end(), portOf(around)) == ports.end())
        return {
            Finding::error("port-not-in-force",
                           QStringLiteral("%1; принимает вызовы на порту %2, а в настройках %3")
                               .arg(text, QString::number(ports.front()), QString::number(portOf(around))),
                           QStringLiteral("Перезапустите abonent listen; если порт занят - см. «порт»"))};
    return {Finding::good(text)};
}

Findings Checks::descriptors(const HealthContext &around)
{
    rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    qint64 most = limit.rlim_max == RLIM_INFINITY ? 1024 * 1024 : qint64(limit.rlim_max);
    QString text = QStringLiteral("предел %1").arg(most);
    const int open = around.resident.pid > 0 ? Processes::openDescriptors(around.resident.pid) : -1;
    const int residents = around.resident.pid > 0 ? Processes::descriptorLimit(around.resident.pid) : -1;
    if (open >= 0 && residents > 0) {
        most = residents;
        text = QStringLiteral("предел %1, listen держит %2").arg(most).arg(open);
    }
    const qint64 connections = (most - spareDescriptors) / 2;
    text += QStringLiteral(", хватит на %1 соединений").arg(qMax<qint64>(0, connections));
    const QString advice = QStringLiteral("Поднимите предел: ulimit -Hn, в службе LimitNOFILE=");
    if (connections < around.channel.settings.maxConnections)
        return {Finding::error(
            "few-descriptors",
            text + QStringLiteral(", а maxConnections=%1").arg(around.channel.settings.maxConnections),
            advice)};
    if (open >= 0 && open > most * 3 / 4)
        return {Finding::attention("descriptors-run-out", text, advice)};
    if (most < fewDescriptors)
        return {Finding::attention("few-descriptors", text, advice)};
    return {Finding::good(text)};
}

Findings Checks::plugins(const HealthContext &)
{
    const QDir directory = Global::channelPluginsDir();
    const QStringList names = directory.entryList({QStringLiteral("*.so")}, QDir::Files, QDir::Name);
    Findings findings;
    QStringList kinds;
    for (const QString &name : names) {
        QString trouble;
        const QString path = directory.absoluteFilePath(name);
        const QByteArray said = saidByChild([&path] { return loaded(path); }, &trouble);
        const QString kind = QString::fromUtf8(said.split('\n').value(0));
        bool isNumber = false;
        kind.toInt(&isNumber);
        if (!trouble.isNull() || !isNumber) {
            findings.push_back(Finding::error(
                "plugin-unusable",
                QStringLiteral("%1: %2").arg(name, trouble.isNull() ? QString::fromUtf8(said) : trouble),
                QStringLiteral("Замените модуль или уберите из %1; его проверит abonent check %2")
                    .arg(directory.absolutePath(), path)));
        } else if (kinds.contains(kind)) {
            findings.push_back(Finding::attention(
                "plugin-twice", QStringLiteral("%1: второй модуль канала вида %2").arg(name, kind),
                QStringLiteral("Оставьте в %1 один").arg(directory.absolutePath())));
        } else {
            kinds << kind;
            findings.push_back(
                Finding::good(QStringLiteral("%1 - %2, вид %3")
                                  .arg(name, QString::fromUtf8(said.split('\n').value(1)), kind)));
        }
    }
    if (!kinds.contains(QString::number(ipKind)))
        findings.push_back(Finding::error(
            "no-ip-channel",
            QStringLiteral("В %1 нет пригодного модуля IP-канала").arg(directory.absolutePath()),
            QStringLiteral("Установите libtransportIp.so из той же поставки, что и программа")));
    return findings;
}
