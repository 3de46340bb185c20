#include "host/health/processes.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>
#include <array>

#include <arpa/inet.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray(); // its size is not known before
}

QStringList linesOf(const QString &path)
{
    return QString::fromLatin1(contents(path)).split(QLatin1Char('\n'));
}

QString place(int pid, const char *name)
{
    return QStringLiteral("/proc/%1/%2").arg(pid).arg(QLatin1String(name));
}

QString userName(uint uid)
{
    const passwd *entry = ::getpwuid(uid);
    return entry ? QString::fromLocal8Bit(entry->pw_name) : QString::number(uid);
}

/// An address of /proc/net/tcp: hexadecimal words of 32 bits in the machine's own order.
QString addressOf(const QString &hex)
{
    std::array<quint32, 4> words = {};
    for (int word = 0; word < hex.size() / 8 && word < 4; ++word)
        words[std::size_t(word)] = hex.midRef(word * 8, 8).toUInt(nullptr, 16);
    char text[INET6_ADDRSTRLEN] = {};
    ::inet_ntop(hex.size() == 8 ? AF_INET : AF_INET6, words.data(), text, sizeof(text));
    return QString::fromLatin1(text);
}

void addListeners(const QString &path, std::vector<Processes::Listener> *result)
{
    const QString listening = QStringLiteral("0A");
    const QStringList lines = linesOf(path).mid(1); // behind the titles
    for (const QString &line : lines) {
        const QStringList columns = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        if (columns.size() < 10 || columns[3] != listening)
            continue;
        const QString address = columns[1].section(QLatin1Char(':'), 0, 0);
        result->push_back({columns[1].section(QLatin1Char(':'), 1).toInt(nullptr, 16), addressOf(address),
                           userName(columns[7].toUInt()), columns[9].toULongLong()});
    }
}

QStringList processNumbers()
{
    return QDir(QStringLiteral("/proc"))
        .entryList(QDir::Dirs | QDir::NoDotAndDotDot)
        .filter(QRegularExpression(QStringLiteral("^\\d+$")));
}

} // namespace

std::vector<Processes::Listener> Processes::listeners()
{
    std::vector<Listener> result;
    addListeners(QStringLiteral("/proc/net/tcp"), &result);
    addListeners(QStringLiteral("/proc/net/tcp6"), &result);
    return result;
}

QSet<quint64> Processes::socketsOf(int pid)
{
    constexpr char form[] = "socket:[";
    QSet<quint64> result;
    const QDir directory(place(pid, "fd"));
    const QStringList names = directory.entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        char target[64] = {};
        const QByteArray path = QFile::encodeName(directory.filePath(name));
        const ssize_t size = ::readlink(path.constData(), target, sizeof(target) - 1);
        const QByteArray text(target, int(qMax<ssize_t>(0, size)));
        if (text.startsWith(form))
            result.insert(text.mid(int(sizeof(form)) - 1).chopped(1).toULongLong());
    }
    return result;
}

int Processes::holderOf(quint64 socketInode)
{
    const QStringList numbers = processNumbers();
    const auto holds = [socketInode](const QString &number) {
        return socketsOf(number.toInt()).contains(socketInode);
    };
    const auto found = std::find_if(numbers.begin(), numbers.end(), holds);
    return found == numbers.end() ? 0 : found->toInt();
}

int Processes::lockHolder(const QString &path)
{
    struct stat status = {};
    if (::stat(QFile::encodeName(path).constData(), &status) != 0)
        return 0;
    const QString file = QStringLiteral("%1:%2:%3")
                             .arg(major(status.st_dev), 2, 16, QLatin1Char('0'))
                             .arg(minor(status.st_dev), 2, 16, QLatin1Char('0'))
                             .arg(status.st_ino);
    const QString ourProgram = QFile::symLinkTarget(QStringLiteral("/proc/self/exe"));
    const QStringList lines = linesOf(QStringLiteral("/proc/locks"));
    for (const QString &line : lines) { // "1: FLOCK  ADVISORY  WRITE 1234 08:01:131 0 EOF"
        const QStringList columns = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        if (columns.value(1) != QLatin1String("FLOCK"))
            continue;
        const int pid = columns.value(4).toInt();
        // Some file systems show another device here than to stat().
        const bool isInode = columns.value(5).section(QLatin1Char(':'), 2) == QString::number(status.st_ino);
        if (columns.value(5) == file || (isInode && QFile::symLinkTarget(place(pid, "exe")) == ourProgram))
            return pid;
    }
    return 0;
}

Processes::Process Processes::describe(int pid)
{
    Process result;
    result.pid = pid;
    result.user = QFileInfo(QStringLiteral("/proc/%1").arg(pid)).owner();
    result.program = QFile::symLinkTarget(place(pid, "exe"));
    if (result.program.isEmpty())
        result.program = QString::fromUtf8(contents(place(pid, "comm")).trimmed());
    // Behind the name, which may hold blanks and brackets: the 20th value is the start in ticks since the
    // boot.
    const QByteArray status = contents(place(pid, "stat"));
    const double ticks = status.mid(status.lastIndexOf(')') + 2).split(' ').value(19).toDouble();
    const double upSeconds = contents(QStringLiteral("/proc/uptime")).split(' ').value(0).toDouble();
    if (ticks > 0 && upSeconds > 0)
        result.started = QDateTime::currentDateTime().addMSecs(
            -qint64((upSeconds - ticks / double(::sysconf(_SC_CLK_TCK))) * 1000));
    return result;
}

QString Processes::nameOf(const Process &process)
{
    return QStringLiteral("%1 (процесс %2, пользователь %3)")
        .arg(process.program, QString::number(process.pid), process.user);
}

int Processes::openDescriptors(int pid)
{
    const QDir directory(place(pid, "fd"));
    return directory.isReadable() ? int(directory.count()) - 2 : -1;
}

int Processes::descriptorLimit(int pid)
{
    const QStringList limits = linesOf(place(pid, "limits")).filter(QStringLiteral("Max open files"));
    return limits.isEmpty() ? -1
                            : limits.first().split(QLatin1Char(' '), Qt::SkipEmptyParts).value(3).toInt();
}
