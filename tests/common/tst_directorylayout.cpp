// Every place of the installation, from the place of the executable.
#include "common/directorylayout.h"
#include "tests/support/testinstallation.h"

#include <QtTest>

class TestDirectoryLayout : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void namesEveryPlace()
    {
        using namespace Global;
        using Dir = QDir (*)();
        using LevelDir = QDir (*)(int);
        using File = QString (*)();

        TestInstallation::clean();
        QStringList places{journalsFilePath(12), dataSecrecyDir(-1).path()};
        for (const Dir dir :
             {installDir, applicationDir, messagesPluginsDir, settingsPluginsDir, channelSettingsPluginsDir,
              notificationPluginsDir, channelPluginsDir, windowPluginsDir, settingsDir, notificationsAudioDir,
              emergecyPatchDir, dataDir})
            places += dir().path();
        for (const File file :
             {internalSettingsFilePath, generalSettingsFilePath, uiSettingsFilePath, secrecySettingsFilePath,
              titlesSettingsFilePath, autoDeletionSettingsFilePath, notificationsSettingsFilePath,
              channelEnableSettingsFilePath, channelIpSettingsFilePath, channelComSettingsFilePath,
              channelDedicatedSettingsFilePath, abonentsSettingsFilePath, groupsSettingsFilePath,
              abonentsStatesFilePath})
            places += file();
        for (const LevelDir dir : {dataSecrecyDir, logDir, journalsRenderDir, messagesDir, inputMessagesDir,
                                   outputMessagesDir, draftMessagesDir, incompleteMessagesDir,
                                   transitMessagesDir, tasksDir, tasksToInterfaceDir, tasksToTransportDir})
            places += dir(12).path();

        const QStringList tails =
            "/data/12/journals_2.2.db /data/-1 @ /bin /bin/messagesPlugins /bin/settingsPlugins "
            "/bin/channelSettingsPlugins /bin/notificationPlugins /bin/channelPlugins /bin/windowPlugins "
            "/settings "
            "/settings/sounds /emergecyPatch /data /settings/settings.ini /settings/generalSettings.ini "
            "/settings/ui.ini "
            "/settings/secrecy.conf /settings/titles.conf /settings/autoDeletion.conf "
            "/settings/notifications.conf "
            "/settings/channels.conf /settings/channelIp.conf /settings/channelCom.conf "
            "/settings/channelDedicated.conf "
            "/settings/abonents.conf /settings/groups.conf /data/0/abonents.states /data/12 /data/12/log "
            "/data/12/journalsRender /data/12/messages /data/12/messages/input /data/12/messages/output "
            "/data/12/messages/draft /data/12/messages/incomplete /data/12/messages/transit /data/12/tasks "
            "/data/12/tasks/toInterface /data/12/tasks/toTransport"_s.split(QLatin1Char(' '));
        QCOMPARE(places.size(), tails.size());
        for (int i = 0; i < places.size(); ++i)
            QCOMPARE(places.at(i), TestInstallation::path() + QString(tails.at(i)).remove(QLatin1Char('@')));

        QVERIFY2(!QDir(TestInstallation::path() + "/data"_s).exists(), "naming a place must not make it");
        QVERIFY(QDir::setCurrent("/"_s));
        QCOMPARE(installDir().path(), TestInstallation::path()); // found once
    }
};

// The places are known without an application, and so without what it finds once for all threads, unguarded.
int main(int argc, char **argv)
{
    const QString first = Global::applicationDir().path();
    const QCoreApplication application(argc, argv);
    if (first != QCoreApplication::applicationDirPath())
        qFatal("%s is another place", qPrintable(first));
    TestDirectoryLayout test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_directorylayout.moc"
