// Every place of the installation, from the place of the executable.
#include "common/directorylayout.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QtTest>

class TestDirectoryLayout : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void namesEveryPlace();
};

void TestDirectoryLayout::namesEveryPlace()
{
    const QString bin = QCoreApplication::applicationDirPath();
    const QString root = QFileInfo(bin).path();
    const auto at = [&](const char *tail) { return root + QLatin1String(tail); };
    const QString level = root + QLatin1String("/data/12");

    using namespace Global;
    const QList<QPair<QString, QString>> places{
        {applicationDir().path(), bin},
        {installDir().path(), root},
        {messagesPluginsDir().path(), bin + QLatin1String("/messagesPlugins")},
        {settingsPluginsDir().path(), bin + QLatin1String("/settingsPlugins")},
        {channelSettingsPluginsDir().path(), bin + QLatin1String("/channelSettingsPlugins")},
        {notificationPluginsDir().path(), bin + QLatin1String("/notificationPlugins")},
        {channelPluginsDir().path(), bin + QLatin1String("/channelPlugins")},
        {windowPluginsDir().path(), bin + QLatin1String("/windowPlugins")},
        {settingsDir().path(), at("/settings")},
        {notificationsAudioDir().path(), at("/settings/sounds")},
        {emergecyPatchDir().path(), at("/emergecyPatch")},
        {internalSettingsFilePath(), at("/settings/settings.ini")},
        {generalSettingsFilePath(), at("/settings/generalSettings.ini")},
        {uiSettingsFilePath(), at("/settings/ui.ini")},
        {secrecySettingsFilePath(), at("/settings/secrecy.conf")},
        {titlesSettingsFilePath(), at("/settings/titles.conf")},
        {autoDeletionSettingsFilePath(), at("/settings/autoDeletion.conf")},
        {notificationsSettingsFilePath(), at("/settings/notifications.conf")},
        {channelEnableSettingsFilePath(), at("/settings/channels.conf")},
        {channelIpSettingsFilePath(), at("/settings/channelIp.conf")},
        {channelComSettingsFilePath(), at("/settings/channelCom.conf")},
        {channelDedicatedSettingsFilePath(), at("/settings/channelDedicated.conf")},
        {abonentsSettingsFilePath(), at("/settings/abonents.conf")},
        {groupsSettingsFilePath(), at("/settings/groups.conf")},
        {dataDir().path(), at("/data")},
        {dataSecrecyDir(-1).path(), at("/data/-1")},
        {dataSecrecyDir(12).path(), level},
        {abonentsStatesFilePath(), at("/data/0/abonents.states")},
        {logDir(12).path(), level + QLatin1String("/log")},
        {journalsFilePath(12), level + QLatin1String("/journals_2.2.db")},
        {journalsRenderDir(12).path(), level + QLatin1String("/journalsRender")},
        {messagesDir(12).path(), level + QLatin1String("/messages")},
        {inputMessagesDir(12).path(), level + QLatin1String("/messages/input")},
        {outputMessagesDir(12).path(), level + QLatin1String("/messages/output")},
        {draftMessagesDir(12).path(), level + QLatin1String("/messages/draft")},
        {incompleteMessagesDir(12).path(), level + QLatin1String("/messages/incomplete")},
        {transitMessagesDir(12).path(), level + QLatin1String("/messages/transit")},
        {tasksDir(12).path(), level + QLatin1String("/tasks")},
        {tasksToInterfaceDir(12).path(), level + QLatin1String("/tasks/toInterface")},
        {tasksToTransportDir(12).path(), level + QLatin1String("/tasks/toTransport")},
    };
    for (const auto &place : places)
        QCOMPARE(place.first, place.second);
    QVERIFY2(!QFileInfo::exists(level), "naming a place must not make it");

    QVERIFY(QDir::setCurrent(QStringLiteral("/")));
    QCOMPARE(installDir().path(), root); // found once
}

QTEST_GUILESS_MAIN(TestDirectoryLayout)
#include "tst_directorylayout.moc"
