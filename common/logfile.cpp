#include "common/logfile.h"

#include "common/csysteminfo.h"
#include "common/directorylayout.h"
#include "common/environment.h"
#include "common/messagequeue.h"
#include "common/namefilter.h"
#include "common/permissionbits.h"
#include "common/secrecy.h"
#include "common/settingonce.h"
#include "common/trustedfile.h"

#include <QCoreApplication>
#include <QDate>
#include <QDir>
#include <QFile>
#include <QMutexLocker>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <utility>

#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

constexpr int openAttempts = 2;
constexpr int writeRetries = 10;
constexpr int lockWaitMs = 50;

// Only what does not change with the contents: asking for times makes the next write dearer.
constexpr unsigned identity = STATX_INO | STATX_TYPE | STATX_MODE;

void say(QtMsgType type, const QString &text, const QString &name, int reason)
{
    Messages::say(type, Messages::format(text, {name, qt_error_string(reason)}));
}

QString date()
{
    const QDate today = QDate::currentDate();
    return QStringLiteral("%1.%2.%3")
        .arg(today.year(), 4, 10, QLatin1Char('0'))
        .arg(today.month(), 2, 10, QLatin1Char('0'))
        .arg(today.day(), 2, 10, QLatin1Char('0'));
}

bool isSizeLimited()
{
    rlimit limit = {};
    return ::getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur != RLIM_INFINITY;
}

void giveDirectoryRights(const QString &directory, mode_t mode)
{
    const CDescriptor opened(
        ::open(QFile::encodeName(directory).constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!opened.isOpen() || ::fchmod(opened.get(), mode) != 0)
        say(QtDebugMsg, QStringLiteral("Не удалось изменить права доступа для каталога"), directory, errno);
}

// Also one that may not be read, whose last line is then taken for whole.
CDescriptor openExisting(const QString &path)
{
    CDescriptor file = TrustedFile::openTrustedLinks(path, nullptr, O_RDWR | O_APPEND);
    if (!file.isOpen() && errno == EACCES)
        file = TrustedFile::openTrustedLinks(path, nullptr, O_WRONLY | O_APPEND);
    return file;
}

off_t sizeOf(const CDescriptor &file)
{
    struct stat status = {};
    return ::fstat(file.get(), &status) == 0 ? status.st_size : -1;
}

// Of several processes that find a log empty one writes the head. A stranger's lock is not waited for long.
void writeHead(const CDescriptor &file, const QByteArray &head)
{
    for (int wait = 0; ::flock(file.get(), LOCK_EX | LOCK_NB) != 0 && wait < lockWaitMs; ++wait)
        QThread::msleep(1);
    if (sizeOf(file) == 0)
        Io::writeAll(file, head);
    ::flock(file.get(), LOCK_UN);
}

// What a crash has cut off, here or in another process, or a loss of power has left: zero bytes.
bool endsTorn(const CDescriptor &file)
{
    bool isTorn = true;
    for (int look = 0; look < 2 && isTorn; ++look) {
        if (look > 0)
            QThread::msleep(1); // another process may be in the middle of its write
        char last = '\n';
        isTorn = ::pread(file.get(), &last, 1, sizeOf(file) - 1) == 1 && last != '\n';
    }
    return isTorn;
}

} // namespace

namespace LogFile {

LogPlace findPlace()
{
    const QDir directory = Global::logDir(Global::currentSecrecy());
    const QString name = QStringLiteral("%1_%2_%3.log")
                             .arg(QCoreApplication::applicationName(),
                                  Global::filterNotValidSymbols(Global::currentSystemUserName()), date());
    return {directory.absolutePath(), directory.absoluteFilePath(name)};
}

bool makeDirectory(const QString &directory, bool *created)
{
    *created = false;
    if (QDir(directory).exists())
        return true;
    *created = QDir().mkpath(directory);
    if (!*created)
        Messages::say(
            QtWarningMsg,
            Messages::format(QStringLiteral("Не удалось создать каталог для записи лога"), {directory}));
    return *created;
}

} // namespace LogFile

void LogPreparation::get(int kinds)
{
    static CSettingOnce directoryPermissions(&CSettings::dirPermissions);
    static CSettingOnce filePermissions(&CSettings::filePermissions);

    if ((kinds & Place) != 0)
        place = LogFile::findPlace();
    if ((kinds & DirectoryRights) != 0)
        directoryMode = modeOf(directoryPermissions.value());
    if ((kinds & FileRights) != 0)
        fileMode = modeOf(filePermissions.value());
    if ((kinds & Head) != 0)
        head = CSystemInfo::summaryInfo().toUtf8();
    ready |= kinds;
}

int CLogFile::append(std::string_view record, const LogPreparation &preparation)
{
    const QMutexLocker locker(&mutex);
    if (!placeIsKnown) {
        if (preparation.lacks(LogPreparation::Place) != 0)
            return LogPreparation::Place;
        place = preparation.place;
        placeIsKnown = true;
        encodedPath = QFile::encodeName(place.file);
        watch.reset();
    }

    bool isThere = isStillThere();
    ssize_t written = -1;
    for (int attempt = 0; attempt < openAttempts; ++attempt) {
        if (!isThere) {
            const int needed = open(preparation);
            if (needed != LogPreparation::Nothing || !placeIsKnown)
                return needed;
        }
        endTornLine();
        written = writeSome(record);
        isThere = written >= 0 || errno != EBADF;
        if (isThere)
            break;
    }
    if (written != static_cast<ssize_t>(record.size()))
        writeLines(record, written);
    return LogPreparation::Nothing;
}

// Whoever renames or deletes the log finds the next record in a new one. That the descriptor still belongs to
// it is proved by each write.
bool CLogFile::isStillThere()
{
    if (!watch)
        return false;
    if (watch->isUntouched())
        return true;

    const quint64 look = watch->beginLook();
    struct statx now = {};
    if (::statx(AT_FDCWD, encodedPath.constData(), lookFlags, identity, &now) != 0 || now.stx_ino != inode ||
        makedev(now.stx_dev_major, now.stx_dev_minor) != device || now.stx_mode != mode)
        return false;
    sizeIsLimited = isSizeLimited();
    watch->endLook(look);
    return true;
}

// @return Nothing also when it was given up: then the place is forgotten
int CLogFile::open(const LogPreparation &preparation)
{
    int reason = 0;
    for (int attempt = 0; attempt < openAttempts; ++attempt) {
        CDescriptor file = openExisting(place.file);
        if (!file.isOpen() && (errno == ENOENT || errno == ENOTDIR)) {
            const int needed = makeReady(preparation);
            if (needed != LogPreparation::Nothing || !placeIsKnown)
                return needed;
            file = create(preparation);
        }
        reason = errno;
        if (!file.isOpen())
            continue;
        if (sizeOf(file) == 0) { // as a crash leaves it, or nobody but us can have made it
            if (const int needed = preparation.lacks(LogPreparation::Head))
                return needed;
            writeHead(file, preparation.head);
        }
        lineIsTorn = endsTorn(file);
        keep(std::move(file));
        return LogPreparation::Nothing;
    }
    say(QtWarningMsg, QStringLiteral("Ошибка открытия файла для записи:"), place.file, reason);
    forget();
    return LogPreparation::Nothing;
}

// The directory, and the answers that a new file takes.
int CLogFile::makeReady(const LogPreparation &preparation)
{
    bool isCreated = false;
    if (!LogFile::makeDirectory(place.directory, &isCreated)) {
        forget();
        return LogPreparation::Nothing;
    }
    directoryIsNew = directoryIsNew || isCreated;
    const int needed = preparation.lacks(LogPreparation::FileRights | LogPreparation::Head |
                                         (directoryIsNew ? LogPreparation::DirectoryRights : 0));
    if (needed == LogPreparation::Nothing && directoryIsNew) {
        giveDirectoryRights(place.directory, preparation.directoryMode);
        directoryIsNew = false;
    }
    return needed;
}

// A file that gets its name only with its head in it, so that no other process writes before that. Where the
// file system cannot do so, and where an administrator's link leads to nothing yet, one that has its name at
// once.
CDescriptor CLogFile::create(const LogPreparation &preparation) const
{
    constexpr int flags = O_RDWR | O_APPEND;
    const CDescriptor directory = TrustedFile::openTrustedLinks(place.directory, nullptr, O_PATH);
    CDescriptor file(::openat(directory.get(), ".", flags | O_TMPFILE | O_CLOEXEC, 0666));
    if (file.isOpen()) {
        giveRights(file, preparation);
        Io::writeAll(file, preparation.head);
        const QByteArray own = "/proc/self/fd/" + QByteArray::number(file.get());
        const QByteArray name = encodedPath.mid(encodedPath.lastIndexOf('/') + 1);
        if (::linkat(AT_FDCWD, own.constData(), directory.get(), name.constData(), AT_SYMLINK_FOLLOW) == 0)
            return file;
    }
    file = TrustedFile::openTrustedLinks(place.file, nullptr, flags | O_CREAT);
    if (file.isOpen() && sizeOf(file) == 0) // otherwise another process was first
        giveRights(file, preparation);
    return file;
}

void CLogFile::giveRights(const CDescriptor &file, const LogPreparation &preparation) const
{
    if (::fchmod(file.get(), preparation.fileMode) != 0)
        say(QtWarningMsg, QStringLiteral("Не удалось изменить права доступа для файла:"), place.file, errno);
}

void CLogFile::keep(CDescriptor opened)
{
    struct statx status = {};
    if (::statx(opened.get(), "", AT_EMPTY_PATH, identity, &status) != 0)
        status = {}; // never found again: the next record opens the file anew
    inode = status.stx_ino;
    device = makedev(status.stx_dev_major, status.stx_dev_minor);
    mode = status.stx_mode;

    struct statx named = {};
    const bool isLinked =
        ::statx(AT_FDCWD, encodedPath.constData(), AT_SYMLINK_NOFOLLOW, identity, &named) == 0 &&
        S_ISLNK(named.stx_mode);
    lookFlags = isLinked ? 0 : AT_SYMLINK_NOFOLLOW;

    watch.emplace(encodedPath, CFileWatch::Name);
    sizeIsLimited = true; // until it is looked at
    descriptor.keep(std::move(opened));
}

// What the one write has left over, line by line. It was the first try of the line in which it ended, but for
// one that it has not begun.
void CLogFile::writeLines(std::string_view record, ssize_t written)
{
    auto done = static_cast<size_t>(std::max<ssize_t>(written, 0));
    bool isTried = written < 0 || (done > 0 && record[done - 1] != '\n');
    while (done < record.size()) {
        const size_t start = done == 0 ? 0 : record.rfind('\n', done - 1) + 1;
        const size_t end = record.find('\n', done) + 1;
        const auto writeRest = [&] {
            const ssize_t count = writeSome(record.substr(done, end - done));
            done += static_cast<size_t>(std::max<ssize_t>(count, 0));
            return count;
        };
        if (!isTried) {
            endTornLine();
            written = writeRest();
        }
        if (written < 0) {
            Messages::say(
                QtWarningMsg,
                Messages::format(QStringLiteral("Не удалось записать данные в лог файл. Ошибка записи. "),
                                 {qt_error_string(errno)}));
            forget();
        }
        for (int retry = 0; retry < writeRetries && done < end; ++retry)
            writeRest();
        if (done > start)
            lineIsTorn = done < end;
        done = end;
        isTried = false;
    }
}

// A line that was cut off must not swallow the start of the next one.
void CLogFile::endTornLine()
{
    if (lineIsTorn)
        lineIsTorn = writeSome("\n") != 1;
}

// @return -1 and EBADF when the descriptor is not ours any more
ssize_t CLogFile::writeSome(std::string_view data) const
{
    if (!descriptor.isOurs()) {
        errno = EBADF;
        return -1;
    }
    return Io::retried([&] {
        return sizeIsLimited ? Io::writeSome(descriptor.get(), data.data(), data.size())
                             : ::write(descriptor.get(), data.data(), data.size());
    });
}

void CLogFile::forget()
{
    placeIsKnown = false;
}
