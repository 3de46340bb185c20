#include "common/logfile.h"

#include "common/csettings.h"
#include "common/csysteminfo.h"
#include "common/directorylayout.h"
#include "common/environment.h"
#include "common/messagequeue.h"
#include "common/namefilter.h"
#include "common/secrecy.h"

#include <QCoreApplication>
#include <QDate>
#include <QDir>
#include <QFile>
#include <QMutexLocker>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

constexpr int openAttempts = 2;
constexpr int writeRetries = 10;

// Only what does not change with the contents: asking for times makes the next write dearer.
constexpr unsigned identity = STATX_INO | STATX_TYPE | STATX_MODE;

void say(QtMsgType type, const QString &text, const QString &name, int reason)
{
    Messages::say(type, Messages::format(text, {name, qt_error_string(reason)}));
}

// The bits of a QFileDevice::Permissions number; owner and user are the same to the system.
mode_t modeOf(int permissions)
{
    const int owner = ((permissions >> 12) | (permissions >> 8)) & 7;
    return static_cast<mode_t>((owner << 6) | (((permissions >> 4) & 7) << 3) | (permissions & 7));
}

// Read once per process. Not a static constant: reading may speak to a host that logs.
int oncePerProcess(std::atomic<int> *known, int (CSettings::*getter)())
{
    int value = known->load(std::memory_order_relaxed);
    if (value < 0) {
        CSettings settings;
        value = (settings.*getter)();
        known->store(value, std::memory_order_relaxed);
    }
    return value;
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
    const TrustedFile::Descriptor opened(
        ::open(QFile::encodeName(directory).constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!opened.isOpen() || ::fchmod(opened.get(), mode) != 0)
        say(QtDebugMsg, QStringLiteral("Не удалось изменить права доступа для каталога"), directory, errno);
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
    static std::atomic<int> directoryPermissions{-1};
    static std::atomic<int> filePermissions{-1};

    if ((kinds & Place) != 0)
        place = LogFile::findPlace();
    if ((kinds & Permissions) != 0) {
        directoryMode = modeOf(oncePerProcess(&directoryPermissions, &CSettings::dirPermissions));
        fileMode = modeOf(oncePerProcess(&filePermissions, &CSettings::filePermissions));
        summary = CSystemInfo::summaryInfo().toUtf8();
    }
    ready |= kinds;
}

int CLogFile::append(std::string_view record, const LogPreparation &preparation)
{
    const QMutexLocker locker(&mutex);
    if (!placeIsKnown) {
        if ((preparation.ready & LogPreparation::Place) == 0)
            return LogPreparation::Place;
        place = preparation.place;
        placeIsKnown = true;
        encodedPath = QFile::encodeName(place.file);
        descriptor.reset();
    }
    if (!isStillThere()) {
        const int needed = open(preparation);
        if (needed != LogPreparation::Nothing || !descriptor.isOpen())
            return needed;
    }

    endTornLine();
    const ssize_t written = writeSome(record);
    if (written != static_cast<ssize_t>(record.size()))
        writeLines(record, written);
    return LogPreparation::Nothing;
}

// Whoever renames or deletes the log finds the next record in a new one.
bool CLogFile::isStillThere()
{
    if (!descriptor.isOpen())
        return false;
    if (watch->isUntouched())
        return true;

    const quint64 look = watch->beginLook();
    struct statx now = {};
    if (::statx(AT_FDCWD, encodedPath.constData(), AT_SYMLINK_NOFOLLOW, identity, &now) != 0 ||
        now.stx_ino != inode || makedev(now.stx_dev_major, now.stx_dev_minor) != device ||
        now.stx_mode != mode)
        return false;
    sizeIsLimited = isSizeLimited();
    watch->endLook(look);
    return true;
}

int CLogFile::open(const LogPreparation &preparation)
{
    for (int attempt = 0; attempt < openAttempts; ++attempt) {
        descriptor = TrustedFile::openOwn(place.file, O_WRONLY | O_APPEND);
        if (!descriptor.isOpen() && (errno == ENOENT || errno == ENOTDIR)) {
            if ((preparation.ready & LogPreparation::Permissions) == 0)
                return LogPreparation::Permissions;
            bool created = false;
            if (!LogFile::makeDirectory(place.directory, &created)) {
                forget();
                return LogPreparation::Nothing;
            }
            if (created)
                giveDirectoryRights(place.directory, preparation.directoryMode);
            create(preparation);
        }
        if (descriptor.isOpen()) {
            remember();
            return LogPreparation::Nothing;
        }
    }
    say(QtWarningMsg, QStringLiteral("Ошибка открытия файла для записи:"), place.file, errno);
    forget();
    return LogPreparation::Nothing;
}

// A file that gets its name only with its head in it, so that no other process writes before that;
// where the file system cannot do so, one that has its name at once.
void CLogFile::create(const LogPreparation &preparation)
{
    constexpr int flags = O_WRONLY | O_APPEND | O_CLOEXEC;
    descriptor.reset(::open(QFile::encodeName(place.directory).constData(), flags | O_TMPFILE, 0666));
    if (descriptor.isOpen()) {
        begin(preparation);
        const QByteArray own = "/proc/self/fd/" + QByteArray::number(descriptor.get());
        if (::linkat(AT_FDCWD, own.constData(), AT_FDCWD, encodedPath.constData(), AT_SYMLINK_FOLLOW) == 0)
            return;
        const int reason = errno;
        descriptor.reset();
        errno = reason;
        if (reason == EEXIST)
            return; // another process was first
    }
    descriptor = TrustedFile::openOwn(place.file, flags | O_CREAT | O_EXCL);
    if (descriptor.isOpen())
        begin(preparation);
}

void CLogFile::begin(const LogPreparation &preparation)
{
    if (::fchmod(descriptor.get(), preparation.fileMode) != 0)
        say(QtWarningMsg, QStringLiteral("Не удалось изменить права доступа для файла:"), place.file, errno);
    remember();
    lineIsTorn = !TrustedFile::writeAll(descriptor, preparation.summary);
}

void CLogFile::remember()
{
    struct statx opened = {};
    if (::statx(descriptor.get(), "", AT_EMPTY_PATH, identity, &opened) != 0)
        opened = {}; // never found again: the next record opens the file anew
    if (opened.stx_ino != inode)
        lineIsTorn = false;
    watch.emplace(encodedPath, CFileWatch::Name);
    sizeIsLimited = true; // until it is looked at
    inode = opened.stx_ino;
    device = makedev(opened.stx_dev_major, opened.stx_dev_minor);
    mode = opened.stx_mode;
}

// What the one write has left over, line by line; it was the first try of the line in which it ended.
void CLogFile::writeLines(std::string_view record, ssize_t written)
{
    auto done = static_cast<size_t>(std::max<ssize_t>(written, 0));
    bool isTried = true;
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

// A line that a full disk has cut must not swallow the start of the next one.
void CLogFile::endTornLine()
{
    if (lineIsTorn)
        lineIsTorn = writeSome("\n") != 1;
}

ssize_t CLogFile::writeSome(std::string_view data) const
{
    return TrustedFile::retried([&] {
        return sizeIsLimited ? TrustedFile::writeSome(descriptor.get(), data.data(), data.size())
                             : ::write(descriptor.get(), data.data(), data.size());
    });
}

void CLogFile::forget()
{
    placeIsKnown = false;
}
