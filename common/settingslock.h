// The lock that whoever writes settings.ini holds: settings.ini.lock, as QSettings makes it.
//
// It keeps out other modules and processes of ours as well as a host that uses QSettings on the file.
// The directory is open to everybody: nothing is followed, nothing blocks, and waiting is bounded.
#pragma once

#include "common/trustedfile.h"

#include <QString>

/// Holds the lock as long as it lives.
class CSettingsLock
{
public:
    explicit CSettingsLock(const QString &settingsFile) : lockPath(settingsFile + QStringLiteral(".lock")) {}
    ~CSettingsLock();

    CSettingsLock(const CSettingsLock &) = delete;
    CSettingsLock &operator=(const CSettingsLock &) = delete;

    /// Takes the lock, removing one whose holder has died.
    /// @param timeoutMs how long to wait for another holder; 0 tries once
    /// @return whether it is held now; if not, errno tells why (EWOULDBLOCK somebody holds it)
    bool take(int timeoutMs);

private:
    bool create();
    bool removeIfStale() const;

    QString lockPath;
    CDescriptor descriptor; // also locked by flock(2), which dies with its process
};
