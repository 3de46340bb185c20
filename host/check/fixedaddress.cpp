#include "host/check/fixedaddress.h"

#include "common/directorylayout.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

namespace {

QByteArray contents(const QString &name)
{
    QFile file(name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool isChosenBySystem(int port)
{
    const QList<QByteArray> range =
        contents(QStringLiteral("/proc/sys/net/ipv4/ip_local_port_range")).simplified().split(' ');
    return port >= range.value(0).toInt() && port <= range.value(1).toInt();
}

/// @return the address of an Internet socket in the lines of /proc/net: "1: 0100007F:4651 ... inode"
QString internetAddress(const QString &table, const QString &inode)
{
    constexpr int localField = 1;
    constexpr int remoteField = 2;
    constexpr int inodeField = 9;
    const QList<QByteArray> lines = contents(QStringLiteral("/proc/net/") + table).split('\n');
    for (const QByteArray &line : lines) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (QString::fromLatin1(fields.value(inodeField)) != inode)
            continue;
        const int port = fields[localField].mid(fields[localField].indexOf(':') + 1).toInt(nullptr, 16);
        const bool isConnected = !fields[remoteField].endsWith(":0000");
        return isConnected || isChosenBySystem(port) ? QString()
                                                     : QStringLiteral("%1 %2").arg(table).arg(port);
    }
    return QString();
}

/// "num: refcount protocol flags type state inode path", where the name of some sockets has no path.
QString unixAddress(const QString &inode)
{
    constexpr int inodeField = 6;
    constexpr int pathField = 7;
    const QList<QByteArray> lines = contents(QStringLiteral("/proc/net/unix")).split('\n');
    for (const QByteArray &line : lines) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (QString::fromLatin1(fields.value(inodeField)) != inode || fields.size() <= pathField)
            continue;
        const QString path = QString::fromUtf8(fields[pathField]);
        return path.startsWith(Global::installDir().absolutePath()) ? QString() : path;
    }
    return QString();
}

} // namespace

QString fixedAddress()
{
    constexpr int lastStandardStream = 2;
    const QDir descriptors(QStringLiteral("/proc/self/fd"));
    const QStringList numbers = descriptors.entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    for (const QString &number : numbers) {
        if (number.toInt() <= lastStandardStream)
            continue;
        const QString target = QFile::symLinkTarget(descriptors.filePath(number));
        const QString name = target.section(QLatin1Char('/'), -1);
        if (target.startsWith(QLatin1String("/dev/tty")))
            return target;
        const QRegularExpressionMatch match =
            QRegularExpression(QStringLiteral("^socket:\\[(\\d+)\\]$")).match(name);
        if (!match.hasMatch())
            continue;
        for (const char *table : {"tcp", "tcp6", "udp", "udp6"}) {
            const QString address = internetAddress(QLatin1String(table), match.captured(1));
            if (!address.isNull())
                return address;
        }
        const QString path = unixAddress(match.captured(1));
        if (!path.isNull())
            return path;
    }
    return QString();
}
