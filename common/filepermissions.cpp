#include "common/filepermissions.h"

#include "common/directorylayout.h"
#include "common/logwriter.h"
#include "common/permissionbits.h"
#include "common/settingonce.h"
#include "common/terminationguard.h"
#include "common/trustedfile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>

namespace {

// Without the bits of the running user, which tell its access and cannot be set.
constexpr int settableMask = 0xF0FF;

CSettingOnce directoryPermissions(&CSettings::dirPermissions);
CSettingOnce filePermissions(&CSettings::filePermissions);

QString directoryPattern()
{
    return QStringLiteral("Не удалось изменить права доступа 0x%1 для каталога %2 (0x%3). %4");
}

QString hexadecimal(int value)
{
    return QString::number(value, 16).rightJustified(4, QLatin1Char('0'));
}

// @param pattern text for the log: wanted rights, name, rights found, reason
void reportFailure(const QString &pattern, const QString &name, int wanted, QFileDevice::Permissions found,
                   const QString &reason)
{
    const int bits = static_cast<int>(found);
    if ((bits & settableMask) != (wanted & settableMask))
        debug(QStringLiteral("Global"), pattern.arg(hexadecimal(wanted), name, hexadecimal(bits), reason),
              DebugAlways, DebugFlagNone);
}

// Gives rights to what is open, whatever its name stands for by now.
bool apply(int descriptor, const QString &name, int wanted, const QString &pattern)
{
    QFile file(QStringLiteral("/proc/self/fd/%1").arg(descriptor));
    const auto permissions = static_cast<QFileDevice::Permissions>(wanted);
    // A descriptor that only names its file (O_PATH) is of use by way of /proc alone.
    if (file.permissions() == permissions || ::fchmod(descriptor, modeOf(wanted)) == 0 ||
        file.setPermissions(permissions))
        return true;
    const QString reason = file.errorString();
    reportFailure(pattern, name, wanted, file.permissions(), reason);
    return false;
}

void applyToDirectory(const QString &path, const QString &pattern)
{
    const int wanted = directoryPermissions.value();
    const CDescriptor directory = TrustedFile::openTrustedLinks(path, nullptr, O_PATH);
    const int reason = errno;
    if (directory.isOpen())
        apply(directory.get(), path, wanted, pattern);
    else
        reportFailure(pattern, path, wanted, QFile::permissions(path), qt_error_string(reason));
}

// From @a path up to, but not including, the installation directory.
void applyInsideInstallation(const QString &path, const QString &installation)
{
    const QString pattern =
        QStringLiteral("Не удалось изменить права доступа 0x%1 для внутреннего каталога %2 (0x%3). %4");
    for (QString level = path; level.size() > installation.size(); level = QFileInfo(level).path())
        applyToDirectory(level, pattern);
}

} // namespace

namespace Global {

bool makePath(const QDir &dir)
{
    const CTerminationGuard guard;
    const QString path = dir.absolutePath();
    if (QFileInfo(path).isDir())
        return true;
    if (!QDir().mkpath(path)) {
        debug(QStringLiteral("Global"), QStringLiteral("Не удалось создать путь %1").arg(path), DebugAlways,
              DebugFlagNone);
        return false;
    }

    const QString installation = installDir().absolutePath();
    if (path == installation || path.startsWith(installation + QLatin1Char('/')))
        applyInsideInstallation(path, installation);
    else
        applyToDirectory(path, directoryPattern());
    return true;
}

bool setFilePermissions(const QString &fileName)
{
    const CTerminationGuard guard;
    const CDescriptor file = TrustedFile::openTrustedLinks(fileName, nullptr, O_PATH);
    return file.isOpen() && setFilePermissions(file.get(), fileName);
}

bool setFilePermissions(int descriptor, const QString &fileName)
{
    struct stat status = {};
    if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    return apply(descriptor, fileName, filePermissions.value(),
                 QStringLiteral("Не удалось изменить права доступа 0x%1 для файла %2 (0x%3). %4"));
}

bool setDirectoryPermissions(int descriptor, const QString &directory)
{
    return apply(descriptor, directory, directoryPermissions.value(), directoryPattern());
}

} // namespace Global
