// The name of every file and directory of the installation.
//
// Everything derives from the place of the executable. The functions only compose absolute paths:
// they create, test, open and log nothing; directories are made by those who use them.
//
//   installation directory                   parent of the application directory
//     application directory                  holds the executable
//       messagesPlugins/ settingsPlugins/ channelSettingsPlugins/
//       notificationPlugins/ channelPlugins/ windowPlugins/
//     settings/                              settings.ini, *.ini, *.conf, sounds/
//     emergecyPatch/
//     data/
//       LEVEL/                               one per secrecy level: 0, 1, 2, 3
//         abonents.states                    level 0 only
//         log/  journals_2.2.db  journalsRender
//         messages/                          input/ output/ draft/ incomplete/ transit/
//         tasks/                             toInterface toTransport
//
// [any thread], also before the application object has been made.
#pragma once

#include "common/exports.h"

#include <QDir>
#include <QString>

namespace Global {

/// The directory of the running executable, links resolved; found once per process.
RUNTIME_EXPORT QDir applicationDir();

/// The parent of the application directory; found once per process.
RUNTIME_EXPORT QDir installDir();

// In the application directory: plug-ins by kind.
RUNTIME_EXPORT QDir messagesPluginsDir();
RUNTIME_EXPORT QDir settingsPluginsDir();
RUNTIME_EXPORT QDir channelSettingsPluginsDir();
RUNTIME_EXPORT QDir notificationPluginsDir();
RUNTIME_EXPORT QDir channelPluginsDir();
RUNTIME_EXPORT QDir windowPluginsDir();

// In the installation directory.
RUNTIME_EXPORT QDir settingsDir();
RUNTIME_EXPORT QDir notificationsAudioDir();
RUNTIME_EXPORT QDir emergecyPatchDir();
RUNTIME_EXPORT QDir dataDir();

// In the settings directory.
RUNTIME_EXPORT QString internalSettingsFilePath(); // settings.ini
RUNTIME_EXPORT QString generalSettingsFilePath();
RUNTIME_EXPORT QString uiSettingsFilePath();
RUNTIME_EXPORT QString secrecySettingsFilePath();
RUNTIME_EXPORT QString titlesSettingsFilePath();
RUNTIME_EXPORT QString autoDeletionSettingsFilePath();
RUNTIME_EXPORT QString notificationsSettingsFilePath();
RUNTIME_EXPORT QString channelEnableSettingsFilePath();
RUNTIME_EXPORT QString channelIpSettingsFilePath();
RUNTIME_EXPORT QString channelComSettingsFilePath();
RUNTIME_EXPORT QString channelDedicatedSettingsFilePath();
RUNTIME_EXPORT QString abonentsSettingsFilePath();
RUNTIME_EXPORT QString groupsSettingsFilePath();

// In the data directory: the tree of one secrecy level. Any number names a directory; no range is checked.
RUNTIME_EXPORT QDir dataSecrecyDir(int level);
RUNTIME_EXPORT QString abonentsStatesFilePath(); // of level 0, whatever the process's own
RUNTIME_EXPORT QDir logDir(int level);
RUNTIME_EXPORT QString journalsFilePath(int level);
RUNTIME_EXPORT QDir journalsRenderDir(int level);
RUNTIME_EXPORT QDir messagesDir(int level);
RUNTIME_EXPORT QDir inputMessagesDir(int level);
RUNTIME_EXPORT QDir outputMessagesDir(int level);
RUNTIME_EXPORT QDir draftMessagesDir(int level);
RUNTIME_EXPORT QDir incompleteMessagesDir(int level);
RUNTIME_EXPORT QDir transitMessagesDir(int level);
RUNTIME_EXPORT QDir tasksDir(int level);
RUNTIME_EXPORT QDir tasksToInterfaceDir(int level);
RUNTIME_EXPORT QDir tasksToTransportDir(int level);

} // namespace Global
