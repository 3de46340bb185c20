#include "common/filepermissions.h"

#include "common/csettings.h"
#include "common/directorylayout.h"
#include "common/logwriter.h"
#include "common/messagequeue.h"
#include "common/terminationguard.h"
#include "common/trustedfile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>

namespace {

// Without the bits of the running user, which tell its access and cannot be set.
constexpr int settableMask = 0xF0FF;

// The two constants are made inside a hold: a handler of messages may come back here.
int directoryPermissions()
{
    const CMessageHold hold;
    static const int permissions = CSettings().dirPermissions();
    return permissions;
}

int filePermissions()
{
    const CMessageHold hold;
    static const int permissions = CSettings().filePermissions();
    return permissions;
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
    if (file.permissions() == permissions || file.setPermissions(permissions))
        return true;
    const QString reason = file.errorString();
    reportFailure(pattern, name, wanted, file.permissions(), reason);
    return false;
}

void applyToDirectory(const QString &path, const QString &pattern)
{
    const TrustedFile::Descriptor directory = TrustedFile::openJudged(path, nullptr, O_PATH);
    const int reason = errno;
    if (directory.isOpen())
        apply(directory.get(), path, directoryPermissions(), pattern);
    else
        reportFailure(pattern, path, directoryPermissions(), QFile::permissions(path),
                      qt_error_string(reason));
}

// From @a path up to, but not including, the installation directory.
void applyInsideInstallation(const QString &path, const QString &installation)
{
    const QString pattern =
        QStringLiteral("Не удалось изменить права доступа 0x%1 для внутреннего каталога %2 (0x%3). %4");
    for (QString level = path; level.size() > installation.size(); level = QFileInfo(level).path())
        applyToDirectory(level, pattern);
}

// The owner's and the running user's bits mean the same mode bits, as Qt has it.
mode_t modeOf(int permissions)
{
    return static_cast<mode_t>((permissions >> 6 & 0700) | (permissions >> 2 & 0700) |
                               (permissions >> 1 & 0070) | (permissions & 0007));
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
        applyToDirectory(path,
                         QStringLiteral("Не удалось изменить права доступа 0x%1 для каталога %2 (0x%3). %4"));
    return true;
}

bool setFilePermissions(const QString &fileName)
{
    const CTerminationGuard guard;
    const TrustedFile::Descriptor file = TrustedFile::openJudged(fileName, nullptr, O_PATH);
    return file.isOpen() && setFilePermissions(file.get(), fileName);
}

bool setFilePermissions(int descriptor, const QString &fileName)
{
    struct stat status = {};
    if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    // The short way, which a descriptor that only names its file (O_PATH) does not know.
    const mode_t mode = modeOf(filePermissions());
    if ((status.st_mode & 0777) == mode || ::fchmod(descriptor, mode) == 0)
        return true;
    return apply(descriptor, fileName, filePermissions(),
                 QStringLiteral("Не удалось изменить права доступа 0x%1 для файла %2 (0x%3). %4"));
}

} // namespace Global
