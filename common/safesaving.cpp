#include "common/safesaving.h"

#include "common/devicewrite.h"
#include "common/filepermissions.h"
#include "common/logwriter.h"
#include "common/terminationguard.h"
#include "common/trustedfile.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QIODevice>

#include <cstdio>

#include <sys/stat.h>
#include <unistd.h>

using Io::retried;

namespace {

void logError(const QString &text)
{
    debug(QStringLiteral("Global"), text, DebugAlways, DebugFlagNone);
}

QString renameFailed(const QString &name)
{
    return QStringLiteral("Не удалось переименовать файл %1").arg(name);
}

// An open file as a device without a buffer: what it has accepted the system has accepted.
class DescriptorDevice : public QIODevice
{
public:
    explicit DescriptorDevice(const CDescriptor &file) : descriptor(file.get())
    {
        open(QIODevice::WriteOnly | QIODevice::Unbuffered);
    }

protected:
    qint64 readData(char *, qint64) override { return -1; }

    // In pieces, and back to the caller now and then, so that the caller's limit of time can bite.
    qint64 writeData(const char *data, qint64 size) override
    {
        QElapsedTimer clock;
        clock.start();
        qint64 done = 0;
        while (done < size && clock.elapsed() < visitMs) {
            const auto piece = static_cast<size_t>(qMin(size - done, pieceSize));
            const ssize_t count = Io::writeSome(descriptor, data + done, piece);
            if (count > 0) {
                done += count;
                continue;
            }
            if (count < 0 && errno != EINTR && done == 0) {
                setErrorString(qt_error_string(errno));
                return -1;
            }
            break;
        }
        return done;
    }

private:
    static constexpr qint64 pieceSize = 4 * 1024 * 1024;
    static constexpr int visitMs = 50;

    const int descriptor;
};

// Best effort: whatever of the names reaches the disk, a whole version is under one of them.
void syncDirectoryOf(const QString &fileName)
{
    Io::syncDirectory(QFile::encodeName(QFileInfo(fileName).absolutePath()));
}

// 0 or errno
int removeFile(const QString &name)
{
    const QByteArray path = QFile::encodeName(name);
    return retried([&] { return ::unlink(path.constData()); }) == 0 || errno == ENOENT ? 0 : errno;
}

// 0 or errno. Replaces what is under the new name.
int renameOver(const QString &from, const QString &to)
{
    const QByteArray source = QFile::encodeName(from);
    const QByteArray target = QFile::encodeName(to);
    return retried([&] { return ::rename(source.constData(), target.constData()); }) == 0 ? 0 : errno;
}

// 0 or errno; EEXIST when there is something under the new name.
int renameBeside(const QString &from, const QString &to)
{
    const QByteArray source = QFile::encodeName(from);
    const QByteArray target = QFile::encodeName(to);
    const int result = retried([&] {
        return ::renameat2(AT_FDCWD, source.constData(), AT_FDCWD, target.constData(), RENAME_NOREPLACE);
    });
    if (result == 0 || (errno != EINVAL && errno != ENOSYS))
        return result == 0 ? 0 : errno;

    // A file system that cannot; between the questions and the renaming nobody else saves this file.
    struct stat status = {};
    if (::lstat(source.constData(), &status) != 0)
        return errno;
    return ::lstat(target.constData(), &status) == 0 ? EEXIST : renameOver(from, to);
}

bool isRegular(const QString &name)
{
    struct stat status = {};
    return ::lstat(QFile::encodeName(name).constData(), &status) == 0 && S_ISREG(status.st_mode);
}

QString newNameOf(const QString &fileName)
{
    return fileName + QLatin1String(".new");
}

QString backupOf(const QString &fileName)
{
    return fileName + QLatin1String(".old");
}

// Puts the backup back where a save was cut off between its two renamings, which leaves the old and the new
// contents beside the missing target. A backup alone is a left-over: who has deleted the target meant it.
// @return 0, or ENOENT or EEXIST when there is nothing to do, or errno
int restoreCutOff(const QString &fileName)
{
    if (!isRegular(backupOf(fileName)) || !isRegular(newNameOf(fileName)))
        return ENOENT;
    return renameBeside(backupOf(fileName), fileName);
}

CDescriptor createNew(const QString &name)
{
    return TrustedFile::openNoFollow(name, O_WRONLY | O_CREAT | O_EXCL);
}

// What lies under the name, whosever it is, is removed, not opened.
CDescriptor replaceNew(const QString &name)
{
    const int reason = removeFile(name);
    CDescriptor file = createNew(name);
    if (!file.isOpen() && errno == EEXIST && reason != 0)
        errno = reason;
    return file;
}

// Null, or the text of the failure. All of the data is on the disk then, and the file is closed.
QString writeNew(CDescriptor &file, const QString &name, const QByteArray &data)
{
    DescriptorDevice device(file);
    QString reason;
    if (!Global::writeData(device, data, 0)) {
        reason = device.errorString();
    } else {
        Global::setFilePermissions(file.get(), name);
        if (!Io::sync(file) || !file.reset())
            reason = qt_error_string(errno);
    }
    if (reason.isNull())
        return QString();

    file.reset();
    const int removal = removeFile(name);
    if (removal != 0)
        logError(
            QStringLiteral("safeSaving failed 5. Не удалось удалить временный файл при ошибке записи. %1.")
                .arg(qt_error_string(removal)));
    const QString text =
        QStringLiteral("Не удалось записать все данные в файл за отведенное время. %1").arg(reason);
    logError(QStringLiteral("safeSaving failed 6. ") + text);
    return text;
}

QString failed(int code, const QString &name, int reason)
{
    logError(QStringLiteral("safeSaving failed %1. Не удалось переименовать файл %2. %3")
                 .arg(QString::number(code), name, qt_error_string(reason)));
    return renameFailed(name);
}

// There is no previous target; a backup, if any, stays as the only previous version.
QString moveToFreeName(const QString &newFileName, const QString &fileName)
{
    const int reason = renameOver(newFileName, fileName);
    if (reason != 0)
        return failed(4, newFileName, reason);
    syncDirectoryOf(fileName);
    return QString();
}

// Gives the target the name of the backup; an older backup goes first.
// @return 0, or ENOENT without a target, or -1 with the failure in @a text
int makeBackup(const QString &fileName, const QString &backup, QString *text)
{
    int reason = renameBeside(fileName, backup);
    if (reason == EEXIST) {
        if (removeFile(backup) != 0) {
            logError(QStringLiteral("safeSaving file removing failed. Не удалось удалить старый файл при "
                                    "безопасном сохранении %1.")
                         .arg(backup));
            *text = QStringLiteral("Не удалось удалить файл %1").arg(backup);
            return -1;
        }
        reason = renameBeside(fileName, backup);
    }
    if (reason == 0)
        return 0;
    if (!QFileInfo::exists(fileName)) // whatever keeps it from being found
        return ENOENT;
    *text = failed(1, fileName, reason);
    return -1;
}

QString moveIntoPlace(const QString &newFileName, const QString &fileName, bool keepsBackup = false)
{
    const QString backup = backupOf(fileName);
    QString text;
    const int backupResult = makeBackup(fileName, backup, &text);
    if (backupResult == ENOENT)
        return moveToFreeName(newFileName, fileName);
    if (backupResult != 0)
        return text;

    const int reason = renameOver(newFileName, fileName);
    if (reason != 0) {
        const int restoring = renameOver(backup, fileName);
        return restoring == 0 ? failed(2, newFileName, reason) : failed(3, backup, restoring);
    }

    syncDirectoryOf(fileName); // before the backup goes
    const int removal = keepsBackup ? 0 : removeFile(backup);
    if (removal != 0)
        logError(QStringLiteral("safeSaving file removing failed. Не удалось удалить старый файл при "
                                "безопасном сохранении %1. %2")
                     .arg(backup, qt_error_string(removal)));
    return QString();
}

// A finished file of the caller's may not have reached the disk. 0 or errno.
int syncFinished(const QString &name)
{
    const QByteArray path = QFile::encodeName(name);
    const CDescriptor file(
        retried([&] { return ::open(path.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC); }));
    if (!file.isOpen() || Io::sync(file)) // unreadable, missing: the renaming tells
        return 0;
    return errno;
}

} // namespace

namespace Global {

QString safeSaving(const QString &fileName, const QByteArray &data)
{
    const CTerminationGuard guard;
    const QString newFileName = newNameOf(fileName);
    bool wasCutOff = false;
    CDescriptor file = createNew(newFileName);
    if (!file.isOpen() && errno == EEXIST) {
        // From here on the left-over does not tell any more of a save that was cut off.
        wasCutOff = restoreCutOff(fileName) == 0;
        file = replaceNew(newFileName);
    } else if (!file.isOpen()) {
        makePath(QFileInfo(fileName).absoluteDir()); // most often it is there
        file = createNew(newFileName);
    }
    if (!file.isOpen())
        file = replaceNew(newFileName);
    if (!file.isOpen()) {
        const QString text =
            QStringLiteral("Не удалось открыть файл для записи. %1.").arg(qt_error_string(errno));
        logError(QStringLiteral("safeSaving failed 7. ") + text);
        return text;
    }

    const QString text = writeNew(file, newFileName, data);
    return text.isNull() ? moveIntoPlace(newFileName, fileName, wasCutOff) : text;
}

QString safeSaving(const QString &newFileName, const QString &fileName)
{
    const CTerminationGuard guard;
    const int reason = syncFinished(newFileName);
    if (reason == 0)
        return moveIntoPlace(newFileName, fileName);
    return failed(QFileInfo::exists(fileName) ? 2 : 4, newFileName, reason);
}

QString recoverSaved(const QString &fileName)
{
    const CTerminationGuard guard;
    const QString backup = backupOf(fileName);
    const int reason = restoreCutOff(fileName);
    if (reason == EEXIST || reason == ENOENT)
        return QString();
    if (reason != 0) {
        const QString text = QStringLiteral("Не удалось восстановить файл %1 из %2. %3")
                                 .arg(fileName, backup, qt_error_string(reason));
        logError(text);
        return text;
    }
    syncDirectoryOf(fileName);
    logError(QStringLiteral("Восстановлен файл %1 из %2").arg(fileName, backup));
    return QString();
}

} // namespace Global
