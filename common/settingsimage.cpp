#include "common/settingsimage.h"

#include "common/inivalue.h"
#include "common/messagequeue.h"
#include "common/settingsfile.h"

#include <QMutexLocker>

#include <iterator>

namespace {

// @return whether the text holds the items now, and can still be read
bool isTaken(CIniText *text, const QString &key, const QStringList &items)
{
    CIniText changed = *text;
    if (!changed.set(key, items) || changed.text().size() > SettingsFile::sizeLimit)
        return false;
    *text = changed;
    return true;
}

} // namespace

QString CSettingsImage::refusal()
{
    return QStringLiteral("Значение нельзя записать в файл настроек, остается прежнее");
}

QString CSettingsImage::cleaned(const QString &key)
{
    return key.split(QLatin1Char('/'), Qt::SkipEmptyParts).join(QLatin1Char('/'));
}

bool CSettingsImage::contains(const QString &key) const
{
    QVariant unused;
    return find(cleaned(key), &unused);
}

QVariant CSettingsImage::value(const QString &key, const QVariant &otherwise) const
{
    QVariant found;
    return find(cleaned(key), &found) ? found : otherwise;
}

bool CSettingsImage::find(const QString &key, QVariant *value) const
{
    QStringList items;
    {
        const QMutexLocker locker(&mutex);
        const auto waiting = pending.constFind(key);
        items = waiting != pending.constEnd() ? waiting->items : settings.items(key);
    }
    if (items.isEmpty())
        return false;
    *value = IniValue::value(items);
    return true;
}

void CSettingsImage::setValue(const QString &key, const QVariant &value)
{
    const QString cleanKey = cleaned(key);
    const QStringList items = IniValue::items(value);
    if (cleanKey.isEmpty() || items.isEmpty())
        Messages::say(QtWarningMsg, Messages::format(refusal(), {key}));
    else
        keep(cleanKey, items, false);
}

void CSettingsImage::setDefault(const QString &key, const QVariant &value)
{
    keep(key, IniValue::items(value), true);
}

void CSettingsImage::keep(const QString &key, const QStringList &items, bool isDefault)
{
    const QMutexLocker locker(&mutex);
    pending.insert(key, {items, isDefault, settings.items(key)});
    ++currentGeneration;
}

bool CSettingsImage::isAnyPending() const
{
    const QMutexLocker locker(&mutex);
    return !pending.isEmpty();
}

void CSettingsImage::accept(const CIniText &fresh)
{
    const QMutexLocker locker(&mutex);
    dropOvertaken(fresh);
    if (fresh.text() == settings.text())
        return;
    settings = fresh;
    ++currentGeneration;
}

CSettingsImage::Merge CSettingsImage::merged(const QByteArray &text, const Items &wanted)
{
    Merge merge;
    merge.text = CIniText(text);
    const QMutexLocker locker(&mutex);
    dropOvertaken(merge.text);
    for (auto waiting = pending.constBegin(); waiting != pending.constEnd(); ++waiting) {
        merge.pending.insert(waiting.key(), waiting->items);
        merge.isOnlyDefaults = merge.isOnlyDefaults && waiting->isDefault;
        if (!isTaken(&merge.text, waiting.key(), waiting->items))
            merge.refused += waiting.key();
    }
    for (auto value = wanted.constBegin(); value != wanted.constEnd(); ++value) {
        merge.isOnlyDefaults = false;
        if (!isTaken(&merge.text, value.key(), *value))
            merge.refused += value.key();
    }
    return merge;
}

void CSettingsImage::confirm(const Merge &merge)
{
    const QMutexLocker locker(&mutex);
    for (auto value = merge.pending.constBegin(); value != merge.pending.constEnd(); ++value) {
        if (pending.value(value.key()).items == *value)
            pending.remove(value.key());
    }
    settings = merge.text;
    ++currentGeneration;
}

// A default was chosen for a value that was missing or unusable. If the file holds another one now, an
// administrator or another process was faster.
void CSettingsImage::dropOvertaken(const CIniText &fresh)
{
    for (auto waiting = pending.begin(); waiting != pending.end();) {
        const bool isOvertaken = waiting->isDefault && fresh.items(waiting.key()) != waiting->seenItems;
        if (isOvertaken)
            ++currentGeneration;
        waiting = isOvertaken ? pending.erase(waiting) : std::next(waiting);
    }
}
