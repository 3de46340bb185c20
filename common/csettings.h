// settings.ini: one getter per key, with its default and range.
//
// Make a CSettings on the stack around a read: its construction takes in changes that others have
// made to the file, its end writes what the getters have filled in. Getters never fail: a missing
// key or an unusable number gives the default, which is written back if this process may write the
// settings (it can write at level 0) and otherwise kept out of the file. The settings never log.
#pragma once

#include "common/exports.h"
#include "common/initext.h"
#include "common/settingsfile.h"

#include <QHash>
#include <QMutex>
#include <QString>
#include <QVariant>

#include <atomic>
#include <memory>

class CFileWatch;

/// The image of the settings file that all facades of this module share.
class RUNTIME_EXPORT SettingsPointer
{
public:
    /// Probes whether this process may write at level 0, which may create its data directory. Reads
    /// nothing yet.
    explicit SettingsPointer(const QString &fileName);
    ~SettingsPointer();

    SettingsPointer(const SettingsPointer &) = delete;
    SettingsPointer &operator=(const SettingsPointer &) = delete;

    /// Reconciles the image with the file: reads it if it has changed, writes pending values.
    /// @param mayWrite false leaves the values of others to those who have set them
    /// [any thread]
    void sync(bool mayWrite = true);

    /// The value of @a key into @a value. @return false if there is none. [any thread]
    bool find(const QString &key, QVariant *value) const;

    /// Sets a value if this process may write the settings; it reaches the file at the next sync().
    /// @param isDefault give way when the file turns out to have got another value meanwhile
    /// [any thread]
    void set(const QString &key, const QVariant &value, bool isDefault);

    /// Whether there is something to be written now.
    bool mustWrite() const { return changed.load(std::memory_order_relaxed) || isRetryDue(); }

    /// Grows whenever a value may have changed.
    quint64 generation() const { return currentGeneration.load(std::memory_order_acquire); }

private:
    struct Pending
    {
        QVariant value;
        bool isDefault; // gives way, if the file no longer holds what it did when the default was chosen:
        bool wasThere;
        QVariant seenValue;
    };

    bool isUnchanged();
    void reread(const SettingsFile::Stamp &now);
    void accept(const CIniText &fresh);
    void dropOvertaken(const CIniText &fresh);
    void makeDirectory();
    bool isRetryDue() const;
    void writePending();
    void writeOnce();
    bool tryToWrite(int lockTimeoutMs);
    bool mergeAndReplace();

    const QString path;
    const QByteArray encodedPath;
    const bool writable;
    const std::unique_ptr<CFileWatch> watch;

    std::atomic<quint64> lastStamp{SettingsFile::Stamp::Absent}; // the file's state that the image shows
    std::atomic<bool> rereadSoon{false};                         // read so early that its time proves nothing
    std::atomic<bool> changed{false}; // a value was set and not yet taken to the file
    std::atomic<qint64> retryAt{0};   // since a failed write, when to try again, or 0
    std::atomic<quint64> currentGeneration{1};

    mutable QMutex mutex; // guards the three below; never held while another process is waited for
    CIniText settings;
    QHash<QString, Pending> pending; // values not yet in the file
    quint64 warnedStamp = SettingsFile::Stamp::Unknown;

    QMutex writing; // held by the thread that writes; the others leave their values to it
};

/// Null until the first CSettings; then set once and never freed. Not exported: each module has its own.
extern std::atomic<SettingsPointer *> gCSettingsSettings;

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
    /// @param value boolean, number or text
    void write(const QString &key, const QVariant &value);

    /// Grows whenever a value may have changed.
    quint64 generation() const { return pointer->generation(); }

    // clang-format off
    bool debugAll()                       { return flag(QStringLiteral("Debug/all"), false); }
    bool debugIpcData()                   { return flag(QStringLiteral("Debug/ipcData"), false); }
    bool debugIpcExtra()                  { return flag(QStringLiteral("Debug/ipcExtra"), false); }
    bool debugIpcSecurityDaemon()         { return flag(QStringLiteral("Debug/ipcSecurityDaemon"), true); }
    bool debugIpcTransport()              { return flag(QStringLiteral("Debug/ipcTransport"), false); }
    bool debugTransportAbonents()         { return flag(QStringLiteral("Debug/transportAbonents"), false); }
    bool debugTransportTransit()          { return flag(QStringLiteral("Debug/transportTransit"), true); }
    bool debugTransportConnects()         { return flag(QStringLiteral("Debug/transportConnects"), true); }
    bool debugTransportDataLifetime()     { return flag(QStringLiteral("Debug/transportDataLifetime"), false); }
    bool debugTransportBaseProtocol()     { return flag(QStringLiteral("Debug/transportBaseProtocol"), false); }
    bool debugTransportProtocol()         { return flag(QStringLiteral("Debug/transportProtocol"), true); }
    bool debugTransportProtocolAttaches() { return flag(QStringLiteral("Debug/transportProtocolAttaches"), false); }
    bool debugTransportIpSocketError()    { return flag(QStringLiteral("Debug/transportIpSocketError"), true); }
    bool debugTransportComPortError()     { return flag(QStringLiteral("Debug/transportComPortError"), true); }
    bool debugTransportComAtCommands()    { return flag(QStringLiteral("Debug/transportComAtCommands"), true); }
    bool debugTransportComPackets()       { return flag(QStringLiteral("Debug/transportComPackets"), false); }
    bool debugTransportComData()          { return flag(QStringLiteral("Debug/transportComData"), false); }
    bool debugTransportTasks()            { return flag(QStringLiteral("Debug/transportTasks"), true); }
    bool debugJournals()                  { return flag(QStringLiteral("Debug/journals"), true); }
    bool debugMessagesAutodelete()        { return flag(QStringLiteral("Debug/messagesAutodelete"), true); }
    bool debugMessagesLock()              { return flag(QStringLiteral("Debug/messagesLock"), false); }

    // Milliseconds, but for the last, which counts in the unit of the delay it bounds.
    int detailsMaxWritingTime()                  { return number(QStringLiteral("Details/maxWritingTime"), 5000, 100, 10000); }
    int detailsTransportIpConnectTimeout()       { return number(QStringLiteral("Details/transportIpConnectTimeout"), 10000, 500, 60000); }
    int detailsTransportIpThreadStartTimeout()   { return number(QStringLiteral("Details/transportIpThreadStartTimeout"), 1000, 100, 60000); }
    int detailsTransportServerThreadStopTimeout(){ return number(QStringLiteral("Details/transportServerThreadStopTimeout"), 10000, 100, 60000); }
    int detailsTransportIpMaxReconnectTimeout()  { return number(QStringLiteral("Details/transportIpMaxReconnectTimeout"), 120, 10, 3600); }

    // QFileDevice::Permissions as a number; the range is numeric, not a mask.
    int dirPermissions()  { return number(QStringLiteral("Permissions/dirPermissions"), 0x7777, 0x7111, 0x7777); }
    int filePermissions() { return number(QStringLiteral("Permissions/filePermissions"), 0x6666, 0x6000, 0x6666); }
    // clang-format on

private:
    bool flag(const QString &key, bool defaultValue);
    int number(const QString &key, int defaultValue, int min, int max);

    SettingsPointer *pointer; // always gCSettingsSettings
};
