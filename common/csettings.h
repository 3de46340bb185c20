// settings.ini: one getter per key, with its default and range.
//
// Make a CSettings on the stack around a read: its construction takes in changes that others have
// made to the file, its end writes what the getters have filled in. Getters never fail: a missing
// key or an unusable number gives the default, which is written back if this process may write the
// settings (it can write at level 0) and otherwise kept out of the file. The settings never log.
#pragma once

#include "common/exports.h"
#include "common/processwide.h"
#include "common/settingsimage.h"
#include "common/settingskeys.h"

#include <QDateTime>
#include <QFileInfo>
#include <QHash>
#include <QMutex>
#include <QString>
#include <QVariant>

#include <atomic>
#include <memory>

class CFileWatch;
class CSettingsWriter;
namespace SettingsFile {
struct Stamp;
}

/// The settings file of this module, shared by all its facades.
class RUNTIME_EXPORT SettingsPointer
{
public:
    /// Probes whether this process may write at level 0, which may create its data directory. Reads
    /// nothing yet.
    explicit SettingsPointer(const QString &fileName);
    ~SettingsPointer();

    SettingsPointer(const SettingsPointer &) = delete;
    SettingsPointer &operator=(const SettingsPointer &) = delete;

    /// Reconciles the image with the file: reads it if it has changed, writes pending values. [any thread]
    void sync();

    /// The reading half of it. [any thread]
    void refresh();

    /// Whether there is something to be written now. [any thread]
    bool mustWrite() const;

    /// Writes @a values and what is pending, all together or nothing. [any thread]
    /// @return a null text when they have reached the disk, else for the user why nothing was changed
    QString store(const QHash<QString, QVariant> &values);

    CSettingsImage settings;          // [any thread]
    QFileInfo fileInfo;               // of the file. This and the next: set by the thread that reads or
    QDateTime lastModified;           // writes the file; null while there is none
    std::atomic<bool> changed{false}; // a value was set and is not yet taken to the file
    const bool writable;              // whether this process may write the settings

private:
    bool isUnchanged();
    void reread(const SettingsFile::Stamp &now);
    void record(const SettingsFile::Stamp &now);
    void complain(const QString &text, int reason);

    const QByteArray encodedPath;
    const std::unique_ptr<CFileWatch> watch;
    const std::unique_ptr<CSettingsWriter> writer;

    std::atomic<quint64> lastStamp{0};   // the file's state that the image shows; at first no file
    std::atomic<bool> rereadSoon{false}; // read so early that its time proves nothing

    QMutex reading;    // guards the public fields of the file and the one below
    QString complaint; // of the latest reading, or null
};

/// Null until the first CSettings; then set once and never freed. Not exported: each module has its own.
extern ProcessWide<SettingsPointer> gCSettingsSettings;

/// The facade. [any thread] Blocks for file operations only when the file has changed or a value was
/// written; waits at most 200 ms for another writer.
class RUNTIME_EXPORT CSettings
{
public:
    CSettings();
    ~CSettings();

    CSettings(const CSettings &) = delete;
    CSettings &operator=(const CSettings &) = delete;

    /// Sets a value, if this process may write the settings. It reaches the file when the facade ends.
    /// @param value what QSettings can store; other values are refused with a warning in the Qt message
    /// stream
    void write(const QString &key, const QVariant &value);

    /// As SettingsPointer::store(): for who has to know whether a value has reached the disk.
    QString store(const QHash<QString, QVariant> &values) { return pointer->store(values); }

    /// Grows whenever a value may have changed.
    quint64 generation() const { return pointer->settings.generation(); }

#define SETTINGS_FLAG(getter, key, byDefault, meaning)                                                       \
    bool getter()                                                                                            \
    {                                                                                                        \
        return flag(QStringLiteral(key), byDefault);                                                         \
    }
#define SETTINGS_NUMBER(getter, key, byDefault, min, max, meaning)                                           \
    int getter()                                                                                             \
    {                                                                                                        \
        return number(QStringLiteral(key), byDefault, min, max);                                             \
    }
    SETTINGS_FLAGS(SETTINGS_FLAG)
    SETTINGS_NUMBERS(SETTINGS_NUMBER)
#undef SETTINGS_FLAG
#undef SETTINGS_NUMBER

    SettingsPointer *const pointer; // always gCSettingsSettings

private:
    bool flag(const QString &key, bool defaultValue);
    int number(const QString &key, int defaultValue, int min, int max);
    void setDefault(const QString &key, const QVariant &value);
};

/// A key of settings.ini.
struct SettingsKey
{
    const char *name;           // "group/name"
    bool (CSettings::*flag)();  // either this
    int (CSettings::*number)(); // or this
    int defaultValue;
    int min, max;        // of a number that counts; 0 and 1 of a flag
    const char *meaning; // Russian, UTF-8
};

#define SETTINGS_FLAG(getter, key, byDefault, meaning)                                                       \
    {key, &CSettings::getter, nullptr, byDefault, 0, 1, meaning},
#define SETTINGS_NUMBER(getter, key, byDefault, min, max, meaning)                                           \
    {key, nullptr, &CSettings::getter, byDefault, min, max, meaning},
/// All keys. The first is Debug/all, the next twenty are the switches of the log's categories 1 to 20.
constexpr SettingsKey settingsKeys[] = {SETTINGS_FLAGS(SETTINGS_FLAG) SETTINGS_NUMBERS(SETTINGS_NUMBER)};
#undef SETTINGS_FLAG
#undef SETTINGS_NUMBER
