#include "common/secrecy.h"

#include "common/directorylayout.h"
#include "common/messagequeue.h"
#include "common/terminationguard.h"
#include "common/trustedfile.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

#include <ctime>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int levels = 4;
constexpr int nameAttempts = 8;

// A file of ours under a name that nobody could foresee; closed when there can be none.
CDescriptor createProbe(const QDir &directory, QString *path)
{
    for (int attempt = 0; attempt < nameAttempts; ++attempt) {
        const quint32 number = QRandomGenerator::system()->generate() & 0x7fffffffu;
        *path = directory.absoluteFilePath(QStringLiteral(".accessTest_%1.txt").arg(number));
        CDescriptor probe = TrustedFile::openNoFollow(*path, O_WRONLY | O_CREAT | O_EXCL);
        if (probe.isOpen() || errno != EEXIST)
            return probe;
    }
    return CDescriptor();
}

// A process that was killed has left its probe behind. One that is at work deletes its own within moments.
void deleteLeftovers(const QString &directory)
{
    constexpr qint64 leftAfterSeconds = 60;
    QDirIterator probes(directory, {QStringLiteral(".accessTest_*.txt")}, QDir::Files | QDir::Hidden);
    while (probes.hasNext()) {
        const QByteArray path = QFile::encodeName(probes.next());
        struct stat status = {};
        if (::lstat(path.constData(), &status) == 0 && S_ISREG(status.st_mode) &&
            status.st_uid == ::geteuid() && ::time(nullptr) - status.st_mtime > leftAfterSeconds)
            ::unlink(path.constData());
    }
}

// @return 0, or the reason. A file that is gone already is deleted.
int deleteProbe(const QByteArray &path)
{
    int reason = 0;
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (::unlink(path.constData()) == 0 || errno == ENOENT)
            return 0;
        reason = errno;
    }
    return reason;
}

} // namespace

namespace Global {

bool checkAccess(const QDir &directory)
{
    const CTerminationGuard guard;
    const QString directoryPath = directory.absolutePath();
    if (!QFileInfo(directoryPath).isDir() && !QDir().mkpath(directoryPath)) {
        Messages::say(QtWarningMsg,
                      Messages::format(QStringLiteral("Global::checkAccess: Не удалось создать каталог"),
                                       {directoryPath}));
        return false;
    }

    QString path;
    CDescriptor probe = createProbe(directory, &path);
    if (!probe.isOpen())
        return false;
    Io::writeAll(probe, QByteArrayLiteral("test")); // a full disk does not change the level
    probe.reset();

    const int reason = deleteProbe(QFile::encodeName(path));
    if (reason != 0)
        Messages::say(
            QtWarningMsg,
            Messages::format(QStringLiteral("Global::checkAccess: Не удалось удалить временный файл"),
                             {path, qt_error_string(reason)}));
    else
        deleteLeftovers(directoryPath);
    return reason == 0;
}

bool checkSecrecy(int level)
{
    return checkAccess(dataSecrecyDir(level));
}

int currentSecrecy()
{
    for (int level = 0; level < levels; ++level) {
        if (checkSecrecy(level))
            return level;
    }
    Messages::say(QtCriticalMsg, QStringLiteral("Global: Error! Can not get current secrecy level."));
    return 0;
}

} // namespace Global
