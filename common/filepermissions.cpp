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

#include <cerrno>

#include <sys/stat.h>
#include <unistd.h>

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

// What is open as QFile::permissions() tells it. Not by way of /proc, which a process that has changed its
// user may not use.
int permissionsOf(int descriptor)
{
    struct stat status = {};
    if (::fstat(descriptor, &status) != 0)
        return 0;
    int user = 0;
    for (const int right : {R_OK, W_OK, X_OK})
        user |= ::faccessat(descriptor, "", right, AT_EMPTY_PATH) == 0 ? right : 0;
    const int mode = static_cast<int>(status.st_mode);
    return (mode & 0700) << 6 | user << 8 | (mode & 0070) << 1 | (mode & 0007);
}

// 0 or errno
int setMode(int descriptor, mode_t mode)
{
    if (::fchmod(descriptor, mode) == 0)
        return 0;
    if (errno != EBADF)
        return errno;
    const QByteArray name = "/proc/self/fd/" + QByteArray::number(descriptor); // one that only names its file
    return ::chmod(name.constData(), mode) == 0 ? 0 : errno;
}

// @param pattern text for the log: wanted rights, name, rights found, reason
void reportFailure(const QString &pattern, const QString &name, int wanted, int found, int reason)
{
    if ((found & settableMask) != (wanted & settableMask))
        debug(QStringLiteral("Global"),
              pattern.arg(hexadecimal(wanted), name, hexadecimal(found), qt_error_string(reason)),
              DebugAlways, DebugFlagNone);
}

// Gives rights to what is open, whatever its name stands for by now.
bool apply(int descriptor, const QString &name, int wanted, const QString &pattern)
{
    if (permissionsOf(descriptor) == wanted)
        return true;
    const int reason = setMode(descriptor, modeOf(wanted));
    if (reason != 0)
        reportFailure(pattern, name, wanted, permissionsOf(descriptor), reason);
    return reason == 0;
}

void applyToDirectory(const QString &path, const QString &pattern)
{
    const int wanted = directoryPermissions.value();
    const CDescriptor named = TrustedFile::openTrustedLinks(path, nullptr, O_PATH);
    const int reason = errno;
    const CDescriptor opened(::openat(named.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (named.isOpen())
        apply(opened.isOpen() ? opened.get() : named.get(), path, wanted, pattern);
    else
        reportFailure(pattern, path, wanted, static_cast<int>(QFile::permissions(path)), reason);
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
    CDescriptor file = TrustedFile::openTrustedLinks(fileName);
    if (!file.isOpen() && errno == EACCES)
        file = TrustedFile::openTrustedLinks(fileName, nullptr, O_PATH);
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
