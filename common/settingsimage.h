// What the settings file holds, as this process knows it, with the values that are still to be written.
//
// Knows no file: the store reads it, the writer takes the pending values to it.
#pragma once

#include "common/exports.h"
#include "common/initext.h"

#include <QHash>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <atomic>

/// [any thread] Named as in QSettings where it does the same.
class RUNTIME_EXPORT CSettingsImage
{
public:
    using Items = QHash<QString, QStringList>; // by key, as IniValue makes them

    explicit CSettingsImage(const QString &path) : name(path) {}

    QString fileName() const { return name; }
    bool contains(const QString &key) const;
    QVariant value(const QString &key, const QVariant &otherwise = QVariant()) const;

    /// Keeps a value for the writer. What cannot be stored is refused with a warning.
    void setValue(const QString &key, const QVariant &value);

    /// The value of a key that is written as QSettings keeps it. @return false if there is none
    bool find(const QString &key, QVariant *value) const;

    /// Keeps a value that gives way when the file turns out to have got another one meanwhile.
    void setDefault(const QString &key, const QVariant &value);

    /// What is said of a value that cannot be stored, followed by its key.
    static QString refusal();

    /// A key without slashes at its ends and doubled ones, as QSettings keeps it.
    static QString cleaned(const QString &key);

    /// Grows whenever a value may have changed.
    quint64 generation() const { return currentGeneration.load(std::memory_order_acquire); }

    bool isAnyPending() const;

    /// Takes what the file holds now.
    void accept(const CIniText &fresh);

    /// The text of the file with what is to be written.
    struct Merge
    {
        CIniText text;
        Items pending;              // of this image, that are in it
        QStringList refused;        // keys whose value would make the file too long or cannot be read back
        bool isOnlyDefaults = true; // that nobody has asked to be written
    };

    /// @param wanted to be written as well
    Merge merged(const QByteArray &text, const Items &wanted);

    /// The file holds the merge now.
    void confirm(const Merge &merge);

private:
    void keep(const QString &key, const QStringList &items, bool isDefault);
    void dropOvertaken(const CIniText &fresh);

    struct Pending
    {
        QStringList items;
        bool isDefault;
        QStringList seenItems; // in the file, when the default was chosen
    };

    const QString name;
    std::atomic<quint64> currentGeneration{1};

    mutable QMutex mutex; // guards the two below; nothing is waited for, and no value made, under it
    CIniText settings;
    QHash<QString, Pending> pending;
};
