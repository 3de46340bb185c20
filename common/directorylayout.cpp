#include "common/directorylayout.h"

#include "common/processwide.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QStringBuilder>

namespace {

// A tail of a path as it is appended; all of ours are ASCII.
using Tail = QLatin1String;

// Where the kernel has it. QCoreApplication asks there too, but keeps the answer in a cache that threads
// which come first at once destroy for each other.
QString foundApplicationPath()
{
    const QString executable = QFile::symLinkTarget(QStringLiteral("/proc/self/exe"));
    return executable.isEmpty() ? QCoreApplication::applicationDirPath() : QFileInfo(executable).path();
}

QString foundInstallPath()
{
    QDir dir = Global::applicationDir();
    dir.cdUp();
    dir.makeAbsolute();
    return dir.path();
}

QString withSlash(const QString &path)
{
    return path.endsWith(QLatin1Char('/')) ? path : path + QLatin1Char('/');
}

// Texts are kept rather than a QDir: copies of a QDir share lazily filled fields without a lock.
const QString &applicationPath()
{
    static ProcessWide<const QString> path;
    return path.orMade([] { return std::make_unique<const QString>(foundApplicationPath()); });
}

// With a slash at its end.
const QString &installBase()
{
    static ProcessWide<const QString> base;
    return base.orMade([] { return std::make_unique<const QString>(withSlash(foundInstallPath())); });
}

QDir applicationSubdir(Tail tail)
{
    return QDir(Global::applicationDir().absoluteFilePath(tail));
}

QString settingsFile(Tail name)
{
    return installBase() % Tail("settings/") % name;
}

// @param tail with a slash before it; none behind it, since QDir would copy the text to cut it off
QString levelPath(int level, Tail tail = Tail(""))
{
    if (level >= 0 && level <= 9) // all that there are: a digit needs no text of its own
        return installBase() % Tail("data/") % QLatin1Char(static_cast<char>('0' + level)) % tail;
    return installBase() % Tail("data/") % QString::number(level) % tail;
}

} // namespace

namespace Global {

QDir applicationDir()
{
    return QDir(applicationPath());
}

QDir installDir()
{
    return QDir(installBase());
}

// clang-format off
QDir messagesPluginsDir()                { return applicationSubdir(Tail("messagesPlugins/")); }
QDir settingsPluginsDir()                { return applicationSubdir(Tail("settingsPlugins/")); }
QDir channelSettingsPluginsDir()         { return applicationSubdir(Tail("channelSettingsPlugins/")); }
QDir notificationPluginsDir()            { return applicationSubdir(Tail("notificationPlugins/")); }
QDir channelPluginsDir()                 { return applicationSubdir(Tail("channelPlugins/")); }
QDir windowPluginsDir()                  { return applicationSubdir(Tail("windowPlugins/")); }

QDir settingsDir()                       { return QDir(installBase() % Tail("settings/")); }
QDir notificationsAudioDir()             { return QDir(installBase() % Tail("settings/sounds/")); }
QDir emergecyPatchDir()                  { return QDir(installBase() % Tail("emergecyPatch/")); }
QDir dataDir()                           { return QDir(installBase() % Tail("data/")); }

QString internalSettingsFilePath()         { return settingsFile(Tail("settings.ini")); }
QString generalSettingsFilePath()          { return settingsFile(Tail("generalSettings.ini")); }
QString uiSettingsFilePath()               { return settingsFile(Tail("ui.ini")); }
QString secrecySettingsFilePath()          { return settingsFile(Tail("secrecy.conf")); }
QString titlesSettingsFilePath()           { return settingsFile(Tail("titles.conf")); }
QString autoDeletionSettingsFilePath()     { return settingsFile(Tail("autoDeletion.conf")); }
QString notificationsSettingsFilePath()    { return settingsFile(Tail("notifications.conf")); }
QString channelEnableSettingsFilePath()    { return settingsFile(Tail("channels.conf")); }
QString channelIpSettingsFilePath()        { return settingsFile(Tail("channelIp.conf")); }
QString channelComSettingsFilePath()       { return settingsFile(Tail("channelCom.conf")); }
QString channelDedicatedSettingsFilePath() { return settingsFile(Tail("channelDedicated.conf")); }
QString abonentsSettingsFilePath()         { return settingsFile(Tail("abonents.conf")); }
QString groupsSettingsFilePath()           { return settingsFile(Tail("groups.conf")); }

QDir dataSecrecyDir(int level)           { return QDir(levelPath(level)); }
QString abonentsStatesFilePath()         { return levelPath(0, Tail("/abonents.states")); }
QDir logDir(int level)                   { return QDir(levelPath(level, Tail("/log"))); }
QString journalsFilePath(int level)      { return levelPath(level, Tail("/journals_2.2.db")); }
QDir journalsRenderDir(int level)        { return QDir(levelPath(level, Tail("/journalsRender"))); }
QDir messagesDir(int level)              { return QDir(levelPath(level, Tail("/messages"))); }
QDir inputMessagesDir(int level)         { return QDir(levelPath(level, Tail("/messages/input"))); }
QDir outputMessagesDir(int level)        { return QDir(levelPath(level, Tail("/messages/output"))); }
QDir draftMessagesDir(int level)         { return QDir(levelPath(level, Tail("/messages/draft"))); }
QDir incompleteMessagesDir(int level)    { return QDir(levelPath(level, Tail("/messages/incomplete"))); }
QDir transitMessagesDir(int level)       { return QDir(levelPath(level, Tail("/messages/transit"))); }
QDir tasksDir(int level)                 { return QDir(levelPath(level, Tail("/tasks"))); }
QDir tasksToInterfaceDir(int level)      { return QDir(levelPath(level, Tail("/tasks/toInterface"))); }
QDir tasksToTransportDir(int level)      { return QDir(levelPath(level, Tail("/tasks/toTransport"))); }
// clang-format on

} // namespace Global
