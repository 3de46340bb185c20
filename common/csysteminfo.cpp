#include "common/csysteminfo.h"

#include "common/buildconstants.h"
#include "common/directorylayout.h"
#include "common/environment.h"
#include "common/messagequeue.h"
#include "common/textformat.h"

#include <QDateTime>
#include <QFile>
#include <QLocale>
#include <QStorageInfo>
#include <QSysInfo>
#include <QTimeZone>

#include <array>

#include <sys/sysinfo.h>
#include <sys/utsname.h>

namespace {

constexpr std::array<const char *, 5> variables{"HOME", "SESSIONNAME", "SystemDrive", "WINDIR", "PATH"};

// Says why not, after a word on whose behalf.
bool openForReading(QFile &file, const QString &prefix)
{
    QString trouble;
    if (!file.exists())
        trouble = QStringLiteral("Файл не существует: ");
    else if (!file.open(QIODevice::ReadOnly))
        trouble = QStringLiteral("Ошибка открытия файла для чтения: ");
    else
        return true;
    Messages::say(QtDebugMsg, Messages::format(QString(), {prefix + trouble + file.fileName()}));
    return false;
}

struct sysinfo systemFigures()
{
    struct sysinfo figures = {};
    sysinfo(&figures);
    return figures;
}

// What stands behind the first ": " after @a from, up to the end of that line.
QString valueAfter(const QString &text, int from)
{
    const int colon = text.indexOf(QLatin1String(": "), from);
    if (colon < 0)
        return QString();
    const int start = colon + 2;
    const int end = text.indexOf(QLatin1Char('\n'), start);
    return text.mid(start, end < 0 ? -1 : end - start);
}

} // namespace

QString CSystemInfo::summaryInfo()
{
    const QString version = QStringLiteral("Версия %1 %2        Builded at %3 %4 with Qt %5")
                                .arg(QLatin1String(BuildConstants::version), Global::edition(),
                                     QLatin1String(BuildConstants::date), QLatin1String(BuildConstants::time),
                                     QLatin1String(BuildConstants::qtVersion));
    const QString zone = timezoneInfo();
    const QString uptime = uptimeInfo();
    const QString disk = HDDInfo();
    const QString memory = RAMInfo();
    const QString processor = CPUInfo();
    const QString order = byteOrder();
    const QString user = userGroupsInfo();
    const QString environment = envInfo();
    const QString system = OSInfo();
    const QString path = appPathInfo();

    // One after another, as the readers of these logs expect it.
    return QStringLiteral("%1\n%2\n%3\n%4\n%5\n%6\n%7\n%8\n%9\n%10\n%11\n\n")
        .arg(version)
        .arg(path)
        .arg(system)
        .arg(environment)
        .arg(user)
        .arg(order)
        .arg(processor)
        .arg(memory)
        .arg(disk)
        .arg(uptime)
        .arg(zone);
}

QString CSystemInfo::appPathInfo()
{
    return QStringLiteral("Каталог:              %1").arg(Global::applicationDir().absolutePath());
}

QString CSystemInfo::OSInfo()
{
    struct utsname name = {};
    if (QSysInfo::productType() == QLatin1String("unknown") && uname(&name) == 0) {
        const QString text =
            QStringLiteral("%1 %2 %3")
                .arg(QString::fromLocal8Bit(name.sysname), QString::fromLocal8Bit(name.release),
                     QString::fromLocal8Bit(name.version));
        return QStringLiteral("Версия ОС:            %1, %2").arg(text, QSysInfo::kernelVersion());
    }
    return QStringLiteral("Версия ОС:            %1 %2, %3")
        .arg(QSysInfo::productType(), QSysInfo::productVersion(), QSysInfo::kernelVersion());
}

QString CSystemInfo::envInfo()
{
    QString list;
    for (const char *name : variables) {
        const QString value = QString::fromLocal8Bit(qgetenv(name)).simplified();
        if (!value.isEmpty())
            list += QStringLiteral("%1 - %2, ").arg(QLatin1String(name), value);
    }
    list.chop(2);
    return QStringLiteral("Окружение:            %1").arg(list);
}

QString CSystemInfo::userGroupsInfo()
{
    const QString user = Global::currentSystemUserName();
    QFile file(QStringLiteral("/etc/group"));
    if (!openForReading(file, QStringLiteral("SystemInfo: ")))
        return QString();

    QString groups;
    for (QByteArray bytes = file.readLine(); !bytes.isEmpty(); bytes = file.readLine()) {
        const QString line = QString::fromUtf8(bytes);
        if (line.contains(user))
            groups += line.section(QLatin1Char(':'), 0, 0).remove(QLatin1Char('\n')) + QLatin1Char(' ');
    }
    return QStringLiteral("Пользователь:         %1@%2\nГруппы:               %3")
        .arg(user, QSysInfo::machineHostName(), groups);
}

QString CSystemInfo::byteOrder()
{
    const bool little = QSysInfo::ByteOrder == QSysInfo::LittleEndian;
    return QStringLiteral("Порядок байт:         %1")
        .arg(little ? QLatin1String("LittleEndian") : QLatin1String("BigEndian"));
}

QString CSystemInfo::CPUInfo()
{
    QFile file(QStringLiteral("/proc/cpuinfo"));
    if (!openForReading(file, QString()))
        return QString();

    const QString text = QString::fromUtf8(file.readAll());
    const int label = text.indexOf(QLatin1String("model name"));
    if (label < 0)
        return QString();
    return QStringLiteral("Процессор:            %1, %2")
        .arg(QSysInfo::currentCpuArchitecture(), valueAfter(text, label));
}

QString CSystemInfo::RAMInfo()
{
    const struct sysinfo figures = systemFigures();
    return QStringLiteral("ОЗУ:                  свободно %1 из %2")
        .arg(Global::sizeString(static_cast<long long>(figures.freeram)),
             Global::sizeString(static_cast<long long>(figures.totalram)));
}

QString CSystemInfo::HDDInfo()
{
    const QStorageInfo storage = Global::storageOf(Global::applicationDir());
    return QStringLiteral("Жесткий диск:         доступно %1 из %2")
        .arg(Global::sizeString(Global::freeBytes(storage)), Global::sizeString(storage.bytesTotal()));
}

QString CSystemInfo::uptimeInfo()
{
    const long long uptime = systemFigures().uptime;
    const long long days = uptime / 86400;
    const long long hours = uptime / 3600 - 24 * days;
    const long long minutes = uptime / 60 - (1440 * days + 60 * hours);
    const long long seconds = uptime - (3600 * hours + 86400 * days + 60 * minutes);

    QString text;
    if (days > 0)
        text += QStringLiteral("%1 д. ").arg(days);
    if (hours > 0)
        text += QStringLiteral("%1 ч. ").arg(hours);
    if (minutes > 0)
        text += QStringLiteral("%1 м. ").arg(minutes);
    text += QStringLiteral("%1 с.").arg(seconds);
    return QStringLiteral("Аптайм:               %1").arg(text);
}

QString CSystemInfo::timezoneInfo()
{
    const QTimeZone zone = QTimeZone::systemTimeZone();
    const auto type =
        zone.isDaylightTime(QDateTime::currentDateTime()) ? QTimeZone::DaylightTime : QTimeZone::GenericTime;
    return QStringLiteral("Часовой пояс:         %1 %2")
        .arg(zone.displayName(QTimeZone::StandardTime, QTimeZone::OffsetName, QLocale()),
             zone.displayName(type, QTimeZone::DefaultName, QLocale()));
}
