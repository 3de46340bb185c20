// Takes values to the settings file: under its lock, merged into what it holds by then, tried again later
// when that fails.
#pragma once

#include "common/settingsimage.h"

#include <QByteArray>
#include <QMutex>
#include <QStringList>

#include <atomic>

/// [any thread] One thread at a time writes, the others need not wait for it.
class CSettingsWriter
{
public:
    /// @param changedFlag set by whoever leaves a value in the image, cleared when that is taken up
    CSettingsWriter(CSettingsImage *settingsImage, std::atomic<bool> *changedFlag);

    /// Whether there is something to be written now.
    bool isDue() const { return changed.load(std::memory_order_relaxed) || isRetryDue(); }

    /// Writes what is pending in the image. Waits 200 ms at most for other writers and for editors.
    void writePending();

    /// Writes @a values, too, to the disk, all together or none.
    /// @return a null text, or why nothing was changed
    QString store(const QHash<QString, QVariant> &values);

    /// The file was there and is not any more: its directory is made, if it is missing, too.
    void noteAbsence();

private:
    bool isRetryDue() const;
    void makeDirectory();
    void writeOnce();
    bool tryToWrite(int waitMs, const CSettingsImage::Items &wanted);
    bool mergeAndReplace(qint64 waitUntil, const CSettingsImage::Items &wanted);
    bool isMissing() const;
    void complainOfMissing();
    void complainOnce(const QString &text, const QString &place, int reason);

    CSettingsImage &image;
    std::atomic<bool> &changed;
    const QString path;

    std::atomic<qint64> retryAt{0}; // since a failed write, when to try again, or 0

    QMutex writing;         // held by the thread that writes; guards the one below
    QStringList complaints; // since the last write that did not fail
};
