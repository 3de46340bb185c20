#include "common/csettings.h"

#include "common/directorylayout.h"
#include "common/filewatch.h"
#include "common/messagequeue.h"
#include "common/secrecy.h"
#include "common/settingslock.h"
#include "common/terminationguard.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutexLocker>
#include <QThread>

#include <cerrno>
#include <ctime>
#include <iterator>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr int lockWaitMs = 200;
constexpr int shortLockWaitMs = 20;    // again, after that was in vain
constexpr int retryMs = 1000;          // after a failed write, before the next
constexpr int againMs = 50;            // while an editor is at the file, or other threads bring more
constexpr mode_t directoryMode = 0777; // 0x7777

qint64 monotonicMs()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec * qint64(1000) + now.tv_nsec / 1000000;
}

void warn(const QString &text, const QString &path, int reason)
{
    Messages::say(QtWarningMsg, Messages::format(text, {path, qt_error_string(reason)}));
}

SettingsPointer *sharedSettings()
{
    SettingsPointer *shared = gCSettingsSettings.load(std::memory_order_acquire);
    if (shared != nullptr)
        return shared;

    const CTerminationGuard guard;
    // Probed before it is published and under no lock: the probe may speak to a host that reads settings.
    auto *const made = new SettingsPointer(Global::internalSettingsFilePath());
    if (gCSettingsSettings.compare_exchange_strong(shared, made, std::memory_order_acq_rel))
        return made;
    delete made;
    return shared;
}

// An editor that saves in place leaves the file empty for a moment: its text must not be replaced by
// ours before it has come.
bool readSettled(const QString &path, SettingsFile::Contents *contents)
{
    const QByteArray name = QFile::encodeName(path);
    bool isRead = SettingsFile::read(path, contents);
    while (isRead && contents->text.isEmpty() && SettingsFile::stamp(name.constData()).isFresh()) {
        QThread::msleep(1);
        isRead = SettingsFile::read(path, contents);
    }
    return isRead;
}

} // namespace

std::atomic<SettingsPointer *> gCSettingsSettings{nullptr};

SettingsPointer::SettingsPointer(const QString &fileName)
    : path(fileName), encodedPath(QFile::encodeName(fileName)), writable(Global::checkSecrecy(0)),
      watch(new CFileWatch(encodedPath, CFileWatch::NameAndContents))
{}

SettingsPointer::~SettingsPointer() = default;

void SettingsPointer::sync(bool mayWrite)
{
    if (!(mayWrite && mustWrite()) && isUnchanged())
        return;

    const CMessageHold hold; // from here on also against termination
    bool isWriting = false;
    bool isMissing = false; // and something is to be written, or it has just gone
    {
        const QMutexLocker locker(&mutex);
        const SettingsFile::Stamp now = SettingsFile::stamp(encodedPath.constData());
        const bool hasGone = now.id == SettingsFile::Stamp::Absent && lastStamp != now.id;
        if (now.id != lastStamp || rereadSoon)
            reread(now);
        if (pending.isEmpty())
            changed = false;
        isWriting = mayWrite && mustWrite();
        isMissing = hasGone || (isWriting && now.id == SettingsFile::Stamp::Absent);
    }
    if (isMissing)
        makeDirectory();
    if (isWriting)
        writePending();
    if (isMissing && lastStamp == SettingsFile::Stamp::Absent)
        warn(QStringLiteral("Не удалось изменить права доступа файла настроек"), path, ENOENT);
}

bool SettingsPointer::isUnchanged()
{
    if (rereadSoon.load(std::memory_order_relaxed))
        return false;
    if (watch->isUntouched())
        return true;
    const quint64 look = watch->beginLook();
    if (SettingsFile::stamp(encodedPath.constData()).id != lastStamp.load(std::memory_order_acquire))
        return false;
    watch->endLook(look);
    return true;
}

bool SettingsPointer::find(const QString &key, QVariant *value) const
{
    const QMutexLocker locker(&mutex);
    const auto waiting = pending.constFind(key);
    if (waiting != pending.constEnd())
        *value = waiting->value;
    else if (settings.contains(key))
        *value = settings.value(key);
    else
        return false;
    return true;
}

void SettingsPointer::set(const QString &key, const QVariant &value, bool isDefault)
{
    if (!writable)
        return;
    const QMutexLocker locker(&mutex);
    pending.insert(key, {value, isDefault, settings.contains(key), settings.value(key)});
    changed = true;
    ++currentGeneration;
}

void SettingsPointer::reread(const SettingsFile::Stamp &now)
{
    SettingsFile::Contents contents;
    const int reason = SettingsFile::read(path, &contents) ? 0 : errno;
    accept(CIniText(reason == 0 ? contents.text : QByteArray()));
    if (warnedStamp != now.id && reason != 0)
        warn(QStringLiteral("Не удалось прочитать файл настроек, используются значения по умолчанию"), path,
             reason);
    else if (warnedStamp != now.id && !settings.isWellFormed())
        Messages::say(
            QtWarningMsg,
            Messages::format(QStringLiteral("Файл настроек поврежден, непонятные строки пропущены"), {path}));
    warnedStamp = now.id;
    rereadSoon = now.isFresh();
    lastStamp.store(now.id, std::memory_order_release);
}

void SettingsPointer::accept(const CIniText &fresh)
{
    dropOvertaken(fresh);
    if (fresh.text() == settings.text())
        return;
    settings = fresh;
    ++currentGeneration;
}

// A default was chosen for a value that was missing or unusable. If the file holds another one now, an
// administrator or another process was faster.
void SettingsPointer::dropOvertaken(const CIniText &fresh)
{
    for (auto waiting = pending.begin(); waiting != pending.end();) {
        const bool isOvertaken = waiting->isDefault && (fresh.contains(waiting.key()) != waiting->wasThere ||
                                                        fresh.value(waiting.key()) != waiting->seenValue);
        if (isOvertaken)
            ++currentGeneration;
        waiting = isOvertaken ? pending.erase(waiting) : std::next(waiting);
    }
}

bool SettingsPointer::isRetryDue() const
{
    const qint64 at = retryAt.load(std::memory_order_relaxed);
    return at != 0 && monotonicMs() >= at;
}

void SettingsPointer::makeDirectory()
{
    const QString directory = QFileInfo(path).absolutePath();
    if (QDir(directory).exists())
        return;
    QDir().mkpath(directory);
    const CDescriptor opened(
        ::open(QFile::encodeName(directory).constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!opened.isOpen() || ::fchmod(opened.get(), directoryMode) != 0)
        warn(QStringLiteral("Не удалось изменить права доступа каталога с настройками"), directory, errno);
}

// One thread at a time, so the others need not wait for it: it looks again when it has done. What they leave
// to one that has been at it for long goes with the next facade.
void SettingsPointer::writePending()
{
    const qint64 start = monotonicMs();
    while (mustWrite() && monotonicMs() < start + againMs && writing.tryLock()) {
        changed = false;
        writeOnce();
        writing.unlock();
    }
}

void SettingsPointer::writeOnce()
{
    const bool isFirst = retryAt == 0;
    const int waitMs = isFirst ? lockWaitMs : isRetryDue() ? shortLockWaitMs : 0;
    if (tryToWrite(waitMs)) {
        retryAt = 0;
        return;
    }
    if (isFirst)
        warn(QStringLiteral("Не удалось записать файл настроек, значения остаются в памяти"), path, errno);
    if (waitMs > 0)
        retryAt = monotonicMs() + retryMs;
}

bool SettingsPointer::tryToWrite(int lockTimeoutMs)
{
    const qint64 start = monotonicMs();
    CSettingsLock lock(path);
    if (!lock.take(lockTimeoutMs))
        return false;
    bool isDone = mergeAndReplace();
    while (!isDone && errno == EAGAIN && monotonicMs() < start + againMs)
        isDone = mergeAndReplace();
    return isDone;
}

bool SettingsPointer::mergeAndReplace()
{
    SettingsFile::Contents old; // others may have written since the image was read
    if (!readSettled(path, &old))
        return false;

    CIniText fresh(old.text);
    QHash<QString, QVariant> written;
    {
        const QMutexLocker locker(&mutex);
        dropOvertaken(fresh);
        for (auto waiting = pending.constBegin(); waiting != pending.constEnd(); ++waiting) {
            if (fresh.set(waiting.key(), waiting->value))
                written.insert(waiting.key(), waiting->value);
        }
    }
    int modeError = 0;
    if (fresh.text() != old.text && !SettingsFile::replace(old, fresh.text(), &modeError))
        return false;
    if (modeError != 0)
        warn(QStringLiteral("Не удалось изменить права доступа файла настроек"), path, modeError);

    const QMutexLocker locker(&mutex);
    for (auto value = written.constBegin(); value != written.constEnd(); ++value) {
        if (pending.value(value.key()).value == *value)
            pending.remove(value.key());
    }
    const SettingsFile::Stamp now = SettingsFile::stamp(encodedPath.constData());
    if (warnedStamp == lastStamp)
        warnedStamp = now.id; // what was wrong has been said
    accept(fresh);
    rereadSoon = now.isFresh();
    lastStamp.store(now.id, std::memory_order_release);
    return true;
}

CSettings::CSettings() : pointer(sharedSettings())
{
    pointer->sync(false);
}

CSettings::~CSettings()
{
    if (pointer->mustWrite())
        pointer->sync();
}

void CSettings::write(const QString &key, const QVariant &value)
{
    const CTerminationGuard guard;
    pointer->set(key, value, false);
}

bool CSettings::flag(const QString &key, bool defaultValue)
{
    const CTerminationGuard guard;
    QVariant value;
    if (pointer->find(key, &value))
        return value.toBool();
    pointer->set(key, defaultValue, true);
    return defaultValue;
}

int CSettings::number(const QString &key, int defaultValue, int min, int max)
{
    const CTerminationGuard guard;
    QVariant value;
    if (pointer->find(key, &value)) {
        const int found = value.toInt();
        if (found >= min && found <= max)
            return found;
    }
    pointer->set(key, defaultValue, true);
    return defaultValue;
}
