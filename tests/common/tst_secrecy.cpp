// The access probe and the level it finds.
#include "common/directorylayout.h"
#include "common/secrecy.h"
#include "tests/support/forked.h"
#include "tests/support/messagecatcher.h"
#include "tests/support/testinstallation.h"

#include <QtTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using TestInstallation::path;

class TestSecrecy : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { TestInstallation::clean(); }
    void findsTheFirstLevelThatPasses()
    {
        const QPair<QStringList, int> rows[] = {
            {{}, 0}, {{"/data/0"_s, "/data/1"_s}, 2}, {{"/data"_s}, 4}}; // files where directories should be
        for (const auto &[blocked, level] : rows) {
            TestInstallation::clean();
            for (const QString &name : blocked)
                QVERIFY(TestInstallation::write(path() + name, "in the way"));
            QString expected =
                level == 4 ? "|Global: Error! Can not get current secrecy level."_s : QString();
            for (int i = level; i-- > 0;)
                expected.prepend(
                    "|Global::checkAccess: Не удалось создать каталог \"%1/data/%2\""_s.arg(path()).arg(i));
            MessageCatcher messages;
            QCOMPARE(Global::currentSecrecy(), level % 4);
            QCOMPARE(messages.count(QtCriticalMsg), level / 4);
            QCOMPARE(messages.takeAll(), expected.mid(1));
            QVERIFY(!Global::dataSecrecyDir(level + 1).exists());
            QVERIFY(Global::dataSecrecyDir(level).isEmpty(QDir::AllEntries | QDir::Hidden |
                                                          QDir::NoDotAndDotDot));
        }
    }

    void staysSilentWhereItMayNotWrite()
    {
        MessageCatcher messages;
        const auto probe = [&](const QString &directory) {
            return Global::checkAccess(QDir(directory)) ? 0 : 10 + messages.takeAll().size();
        };
        QVERIFY(QDir().mkpath(path() + "/data"_s)); // root's, 0755
        QCOMPARE(probe("/proc"_s), 10);
        if (Forked::canActAs(65534))
            QCOMPARE(Forked::run([&] { return probe(path() + "/data"_s); }, 65534), 10);
    }

    // Only what a process of the same user has left behind, and not what another one is at.
    void leftoversAreRemoved()
    {
        const QString directory = path() + "/data/0/"_s;
        const auto put = [&](const char *name, int age) {
            const QByteArray file = QFile::encodeName(directory) + name;
            const timespec times[2] = {{::time(nullptr) - age, 0}, {::time(nullptr) - age, 0}};
            return TestInstallation::write(QFile::decodeName(file), "test") &&
                   ::utimensat(AT_FDCWD, file.constData(), times, 0) == 0;
        };
        QVERIFY(put(".accessTest_1.txt", 1000) && put(".accessTest_2.txt", 0) &&
                put("accessTest_3.txt", 1000));
        QVERIFY(put(".accessTest_4.txt", 1000) &&
                (::geteuid() != 0 || ::chown(QFile::encodeName(directory + ".accessTest_4.txt"_s).constData(),
                                             65534, 65534) == 0));
        QVERIFY(Global::checkSecrecy(0));
        const QStringList others = {".accessTest_2.txt"_s, ".accessTest_4.txt"_s, "accessTest_3.txt"_s};
        QCOMPARE(QDir(directory).entryList(QDir::Files | QDir::Hidden, QDir::Name),
                 ::geteuid() == 0 ? others : QStringList({others[0], others[2]}));
    }

    void neighboursDoNotDisturb()
    {
        std::atomic<int> refused{0};
        Forked::inThreads(2, [&](int) {
            for (int i = 0; i < 500; ++i)
                refused += Global::checkSecrecy(0) ? 0 : 1;
        });
        QCOMPARE(refused.load(), 0);
    }
};

QTEST_GUILESS_MAIN(TestSecrecy)
#include "tst_secrecy.moc"
