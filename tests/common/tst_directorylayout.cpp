// Every place of the installation, from the place of the executable. Other programs look there, too.
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
        TestInstallation::clean();
        const auto level = [](QDir (*dir)(int)) { return dir(12).path(); };
        // clang-format off
        const QPair<QString, const char *> places[] = {
            {installDir().path(), ""}, {applicationDir().path(), "/bin"}, {messagesPluginsDir().path(), "/bin/messagesPlugins"},
            {settingsPluginsDir().path(), "/bin/settingsPlugins"}, {channelSettingsPluginsDir().path(), "/bin/channelSettingsPlugins"},
            {notificationPluginsDir().path(), "/bin/notificationPlugins"}, {channelPluginsDir().path(), "/bin/channelPlugins"},
            {windowPluginsDir().path(), "/bin/windowPlugins"}, {settingsDir().path(), "/settings"},
            {notificationsAudioDir().path(), "/settings/sounds"}, {emergecyPatchDir().path(), "/emergecyPatch"}, {dataDir().path(), "/data"},
            {internalSettingsFilePath(), "/settings/settings.ini"}, {generalSettingsFilePath(), "/settings/generalSettings.ini"},
            {uiSettingsFilePath(), "/settings/ui.ini"}, {secrecySettingsFilePath(), "/settings/secrecy.conf"},
            {titlesSettingsFilePath(), "/settings/titles.conf"}, {autoDeletionSettingsFilePath(), "/settings/autoDeletion.conf"},
            {notificationsSettingsFilePath(), "/settings/notifications.conf"}, {channelEnableSettingsFilePath(), "/settings/channels.conf"},
            {channelIpSettingsFilePath(), "/settings/channelIp.conf"}, {channelComSettingsFilePath(), "/settings/channelCom.conf"},
            {channelDedicatedSettingsFilePath(), "/settings/channelDedicated.conf"}, {abonentsSettingsFilePath(), "/settings/abonents.conf"},
            {groupsSettingsFilePath(), "/settings/groups.conf"}, {abonentsStatesFilePath(), "/data/0/abonents.states"},
            {journalsFilePath(12), "/data/12/journals_2.2.db"}, {dataSecrecyDir(-1).path(), "/data/-1"}, {level(dataSecrecyDir), "/data/12"},
            {level(logDir), "/data/12/log"}, {level(journalsRenderDir), "/data/12/journalsRender"}, {level(messagesDir), "/data/12/messages"},
            {level(inputMessagesDir), "/data/12/messages/input"}, {level(outputMessagesDir), "/data/12/messages/output"},
            {level(draftMessagesDir), "/data/12/messages/draft"}, {level(incompleteMessagesDir), "/data/12/messages/incomplete"},
            {level(transitMessagesDir), "/data/12/messages/transit"}, {level(tasksDir), "/data/12/tasks"},
            {level(tasksToInterfaceDir), "/data/12/tasks/toInterface"}, {level(tasksToTransportDir), "/data/12/tasks/toTransport"}};
        // clang-format on
        for (const auto &[place, tail] : places)
            QCOMPARE(place, TestInstallation::path() + QString::fromLatin1(tail));
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
