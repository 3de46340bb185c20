#include "common/csettings.h"

#include "common/directorylayout.h"
#include "common/filewatch.h"
#include "common/messagequeue.h"
#include "common/secrecy.h"
#include "common/settingsfile.h"
#include "common/settingswriter.h"
#include "common/terminationguard.h"

#include <QFile>
#include <QMutexLocker>

#include <cerrno>

namespace {

SettingsPointer *sharedSettings()
{
    if (SettingsPointer *const known = gCSettingsSettings)
        return known;
    const CTerminationGuard guard;
    return &gCSettingsSettings.orMade(
        [] { return std::make_unique<SettingsPointer>(Global::internalSettingsFilePath()); });
}

} // namespace

ProcessWide<SettingsPointer> gCSettingsSettings;

SettingsPointer::SettingsPointer(const QString &fileName)
    : settings(fileName), fileInfo(fileName), writable(Global::checkSecrecy(0)),
      encodedPath(QFile::encodeName(fileName)),
      watch(new CFileWatch(encodedPath, CFileWatch::NameAndContents)),
      writer(new CSettingsWriter(&settings, &changed))
{}

SettingsPointer::~SettingsPointer() = default;

void SettingsPointer::sync()
{
    refresh();
    if (!mustWrite())
        return;
    if (!writable) {
        changed = false;
        return;
    }
    const CMessageHold hold;
    writer->writePending();
    const QMutexLocker locker(&reading);
    const SettingsFile::Stamp now = SettingsFile::stamp(encodedPath.constData());
    if (now.id == lastStamp)
        return;
    record(now);
    rereadSoon = true; // whoever has written it
}

bool SettingsPointer::mustWrite() const
{
    return writer->isDue();
}

QString SettingsPointer::store(const QHash<QString, QVariant> &values)
{
    if (!writable)
        return QStringLiteral("У процесса нет права менять %1").arg(settings.fileName());
    const CMessageHold hold;
    return writer->store(values);
}

void SettingsPointer::refresh()
{
    if (isUnchanged())
        return;

    const CMessageHold hold; // from here on also against termination
    bool hasGone = false;
    {
        const QMutexLocker locker(&reading);
        const SettingsFile::Stamp now = SettingsFile::stamp(encodedPath.constData());
        hasGone = now.id == SettingsFile::Stamp::Absent && lastStamp != now.id;
        if (now.id != lastStamp || rereadSoon)
            reread(now);
    }
    if (hasGone)
        writer->noteAbsence();
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

void SettingsPointer::reread(const SettingsFile::Stamp &now)
{
    SettingsFile::Contents contents;
    const int reason = SettingsFile::read(settings.fileName(), &contents) ? 0 : errno;
    if (SettingsFile::isPassing(reason)) { // the next facade tries again
        complain(QStringLiteral("Не удалось прочитать файл настроек, остаются прежние значения"), reason);
        return;
    }
    const CIniText fresh(reason == 0 ? contents.text : QByteArray());
    settings.accept(fresh);
    record(now);
    if (reason != 0)
        complain(QStringLiteral("Не удалось прочитать файл настроек, используются значения по умолчанию"),
                 reason);
    else if (!fresh.isWellFormed())
        complain(QStringLiteral("Файл настроек поврежден, непонятные строки пропущены"), 0);
    else
        complaint.clear();
}

void SettingsPointer::complain(const QString &text, int reason)
{
    const QString path = settings.fileName();
    const QString found = reason == 0 ? Messages::format(text, {path})
                                      : Messages::format(text, {path, qt_error_string(reason)});
    if (found != complaint)
        Messages::say(QtWarningMsg, found);
    complaint = found;
}

void SettingsPointer::record(const SettingsFile::Stamp &now)
{
    fileInfo.refresh();
    lastModified =
        now.modifiedAtNs == 0 ? QDateTime() : QDateTime::fromMSecsSinceEpoch(now.modifiedAtNs / 1000000);
    rereadSoon = now.isFresh();
    lastStamp.store(now.id, std::memory_order_release);
}

CSettings::CSettings() : pointer(sharedSettings())
{
    pointer->refresh();
}

CSettings::~CSettings()
{
    if (pointer->mustWrite())
        pointer->sync();
}

void CSettings::write(const QString &key, const QVariant &value)
{
    if (!pointer->writable)
        return;
    const CTerminationGuard guard;
    pointer->settings.setValue(key, value);
    pointer->changed = true;
}

bool CSettings::flag(const QString &key, bool defaultValue)
{
    const CTerminationGuard guard;
    QVariant value;
    if (pointer->settings.find(key, &value))
        return value.toBool();
    setDefault(key, defaultValue);
    return defaultValue;
}

int CSettings::number(const QString &key, int defaultValue, int min, int max)
{
    const CTerminationGuard guard;
    QVariant value;
    if (pointer->settings.find(key, &value)) {
        const int found = value.toInt();
        if (found >= min && found <= max)
            return found;
    }
    setDefault(key, defaultValue);
    return defaultValue;
}

void CSettings::setDefault(const QString &key, const QVariant &value)
{
    if (!pointer->writable)
        return;
    pointer->settings.setDefault(key, value);
    pointer->changed = true;
}
