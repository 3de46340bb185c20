#include "common/settingswriter.h"

#include "common/inivalue.h"
#include "common/messagequeue.h"
#include "common/settingsfile.h"
#include "common/settingslock.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutexLocker>
#include <QThread>

#include <cerrno>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr int waitForOthersMs = 200;
constexpr int shortWaitMs = 20;        // again, after that was in vain
constexpr int retryMs = 1000;          // after a failed write, before the next
constexpr int againMs = 50;            // while an editor is at the file, or other threads bring more
constexpr mode_t directoryMode = 0777; // 0x7777

qint64 monotonicMs()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec * qint64(1000) + now.tv_nsec / 1000000;
}

// An editor that saves in place leaves the file empty for a moment: its text must not be replaced by
// ours before it has come.
bool readSettled(const QString &path, qint64 waitUntil, SettingsFile::Contents *contents)
{
    const QByteArray name = QFile::encodeName(path);
    for (;;) {
        if (!SettingsFile::read(path, contents))
            return false;
        if (!contents->text.isEmpty() || !SettingsFile::stamp(name.constData()).isFresh())
            return true;
        if (monotonicMs() >= waitUntil) {
            errno = EAGAIN;
            return false;
        }
        QThread::msleep(1);
    }
}

} // namespace

CSettingsWriter::CSettingsWriter(CSettingsImage *settingsImage, std::atomic<bool> *changedFlag)
    : image(*settingsImage), changed(*changedFlag), path(settingsImage->fileName())
{}

bool CSettingsWriter::isRetryDue() const
{
    const qint64 at = retryAt.load(std::memory_order_relaxed);
    return at != 0 && monotonicMs() >= at;
}

// The thread that writes looks again when it has done. What others leave to one that has been at it for long
// goes with the next facade.
void CSettingsWriter::writePending()
{
    const qint64 start = monotonicMs();
    while (isDue() && monotonicMs() < start + againMs && writing.tryLock()) {
        changed = false;
        writeOnce();
        writing.unlock();
    }
}

void CSettingsWriter::writeOnce()
{
    if (!image.isAnyPending()) {
        retryAt = 0;
        return;
    }
    const int waitMs = retryAt == 0 ? waitForOthersMs : isRetryDue() ? shortWaitMs : 0;
    if (tryToWrite(waitMs, {})) {
        retryAt = 0;
        complaints.clear();
        return;
    }
    const int reason = errno;
    if (waitMs > 0)
        retryAt = monotonicMs() + retryMs;
    if (reason != EAGAIN && isMissing()) // nobody else is making it
        complainOfMissing();
    else
        complainOnce(QStringLiteral("Не удалось записать файл настроек, значения остаются в памяти"), path,
                     reason);
}

QString CSettingsWriter::store(const QHash<QString, QVariant> &values)
{
    CSettingsImage::Items wanted;
    for (auto value = values.constBegin(); value != values.constEnd(); ++value) {
        const QString key = CSettingsImage::cleaned(value.key());
        const QStringList items = IniValue::items(*value);
        if (key.isEmpty() || items.isEmpty())
            return QStringLiteral("%1: %2").arg(CSettingsImage::refusal(), value.key());
        wanted.insert(key, items);
    }
    const QMutexLocker locker(&writing);
    if (tryToWrite(waitForOthersMs, wanted)) {
        complaints.clear();
        return QString();
    }
    return QStringLiteral("Не удалось записать файл настроек %1. %2").arg(path, qt_error_string(errno));
}

// @return false: errno tells why
bool CSettingsWriter::tryToWrite(int waitMs, const CSettingsImage::Items &wanted)
{
    const qint64 start = monotonicMs();
    makeDirectory();
    CSettingsLock lock(path);
    if (!lock.take(waitMs))
        return false;
    bool isDone = mergeAndReplace(start + waitMs, wanted);
    while (!isDone && errno == EAGAIN && monotonicMs() < start + againMs)
        isDone = mergeAndReplace(start + waitMs, wanted);
    return isDone;
}

bool CSettingsWriter::mergeAndReplace(qint64 waitUntil, const CSettingsImage::Items &wanted)
{
    SettingsFile::Contents old; // others may have written since the image was read
    if (!readSettled(path, waitUntil, &old))
        return false;

    const CSettingsImage::Merge merge = image.merged(old.text, wanted);
    if (!merge.refused.isEmpty() && !wanted.isEmpty()) {
        errno = EFBIG;
        return false;
    }
    int modeError = 0;
    const QByteArray text = merge.text.text();
    const bool isChanged = text != old.text;
    if (isChanged && !SettingsFile::replace(old, text, &modeError))
        return false;
    if ((isChanged && !merge.isOnlyDefaults) || !wanted.isEmpty())
        Io::syncDirectory(
            QFile::encodeName(QFileInfo(old.path).path())); // or a loss of power brings the old back
    image.confirm(merge);

    if (modeError != 0)
        complainOnce(QStringLiteral("Не удалось изменить права доступа файла настроек"), path, modeError);
    for (const QString &key : merge.refused)
        Messages::say(QtWarningMsg, Messages::format(CSettingsImage::refusal(), {key}));
    return true;
}

void CSettingsWriter::makeDirectory()
{
    const QString directory = QFileInfo(path).absolutePath();
    if (QDir(directory).exists())
        return;
    QDir().mkpath(directory);
    const CDescriptor opened(
        ::open(QFile::encodeName(directory).constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!opened.isOpen() || ::fchmod(opened.get(), directoryMode) != 0)
        complainOnce(QStringLiteral("Не удалось изменить права доступа каталога с настройками"), directory,
                     errno);
}

void CSettingsWriter::noteAbsence()
{
    if (!writing.tryLock())
        return; // it is about to appear
    makeDirectory();
    if (isMissing())
        complainOfMissing();
    writing.unlock();
}

bool CSettingsWriter::isMissing() const
{
    return SettingsFile::stamp(QFile::encodeName(path).constData()).id == SettingsFile::Stamp::Absent;
}

void CSettingsWriter::complainOfMissing()
{
    complainOnce(QStringLiteral("Не удалось изменить права доступа файла настроек"), path, ENOENT);
}

// A cause that lasts is met every second.
void CSettingsWriter::complainOnce(const QString &text, const QString &place, int reason)
{
    const QString complaint = Messages::format(text, {place, qt_error_string(reason)});
    if (complaints.contains(complaint))
        return;
    complaints += complaint;
    Messages::say(QtWarningMsg, complaint);
}
