#include "common/settingslock.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QSysInfo>
#include <QThread>

#include <cerrno>
#include <csignal>
#include <ctime>

#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int pollMs = 2;
constexpr int sizeLimit = 4096;
constexpr qint64 unfinishedMs = 50; // a lock without contents, while its maker is still at it
constexpr qint64 abandonedMs = 30000;

// As QLockFile writes and judges it: process, program, host, machine, boot, a line each. The program is
// named after its file, since that is what QLockFile compares.
QByteArray contents()
{
    const QString program = QFileInfo(QFile::symLinkTarget(QStringLiteral("/proc/self/exe"))).fileName();
    return QByteArray::number(::getpid()) + '\n' + program.toUtf8() + '\n' +
           QSysInfo::machineHostName().toUtf8() + '\n' + QSysInfo::machineUniqueId() + '\n' +
           QSysInfo::bootUniqueId() + '\n';
}

qint64 ageMs(const struct stat &status)
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return (now.tv_sec - status.st_mtim.tv_sec) * 1000 + (now.tv_nsec - status.st_mtim.tv_nsec) / 1000000;
}

// Whether the holder that a lock names is gone for certain; one on another host never is.
bool isHolderDead(const QList<QByteArray> &lines)
{
    if (lines.at(2) != QSysInfo::machineHostName().toUtf8())
        return false;
    const QByteArray boot = lines.value(4);
    if (!boot.isEmpty() && boot != QSysInfo::bootUniqueId())
        return true;
    return ::kill(static_cast<pid_t>(lines.at(0).toInt()), 0) != 0 && errno == ESRCH;
}

bool isStale(const CDescriptor &lock, const struct stat &status)
{
    QByteArray text;
    if (!Io::readAll(lock, &text, sizeLimit))
        return false;
    const QList<QByteArray> lines = text.split('\n');
    const qint64 age = ageMs(status);
    if (lines.size() < 3 || lines.first().toInt() <= 0)
        return age > unfinishedMs;
    return isHolderDead(lines) || age > abandonedMs;
}

bool isSameFile(const QByteArray &path, const CDescriptor &opened)
{
    struct stat named = {};
    struct stat status = {};
    return ::lstat(path.constData(), &named) == 0 && ::fstat(opened.get(), &status) == 0 &&
           named.st_ino == status.st_ino && named.st_dev == status.st_dev;
}

} // namespace

CSettingsLock::~CSettingsLock()
{
    const int reason = errno; // why what was done under the lock has failed
    const QByteArray name = QFile::encodeName(lockPath);
    if (descriptor.isOpen() && isSameFile(name, descriptor))
        ::unlink(name.constData());
    errno = reason;
}

bool CSettingsLock::take(int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        if (create())
            return true;
        if (errno != EEXIST)
            return false;
        const bool again = removeIfStale();
        if (clock.elapsed() >= timeoutMs && !(again && timeoutMs == 0)) {
            errno = EWOULDBLOCK;
            return false;
        }
        if (!again)
            QThread::msleep(pollMs);
    }
}

bool CSettingsLock::create()
{
    descriptor = TrustedFile::openNoFollow(lockPath, O_RDWR | O_CREAT | O_EXCL, 0644);
    if (!descriptor.isOpen())
        return false;

    const bool isWritten =
        ::flock(descriptor.get(), LOCK_EX | LOCK_NB) == 0 && Io::writeAll(descriptor, contents());
    const int reason = errno;
    if (isWritten && isSameFile(QFile::encodeName(lockPath), descriptor))
        return true; // nobody has taken it for an abandoned one meanwhile
    if (isSameFile(QFile::encodeName(lockPath), descriptor))
        ::unlink(QFile::encodeName(lockPath).constData());
    descriptor.reset();
    errno = isWritten || reason == EWOULDBLOCK ? EEXIST : reason;
    return false;
}

// Only who holds the abandoned file's flock may remove it, so two who find it remove it once.
bool CSettingsLock::removeIfStale() const
{
    const CDescriptor found = TrustedFile::openNoFollow(lockPath, O_RDONLY);
    struct stat status = {};
    if (!found.isOpen() || ::fstat(found.get(), &status) != 0)
        return false;
    if (!isStale(found, status) || ::flock(found.get(), LOCK_EX | LOCK_NB) != 0)
        return false;
    const QByteArray name = QFile::encodeName(lockPath);
    return isSameFile(name, found) && ::unlink(name.constData()) == 0;
}
