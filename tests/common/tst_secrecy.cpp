// The access probe and the level it finds.
#include "common/directorylayout.h"
#include "common/secrecy.h"
#include "tests/support/forked.h"
#include "tests/support/testinstallation.h"

#include <QtTest>

#include <unistd.h>

using TestInstallation::path;

class TestSecrecy : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { TestInstallation::clean(); }
    void findsTheFirstLevelThatPasses_data();
    void findsTheFirstLevelThatPasses();
    void staysSilentWhereItMayNotWrite();
    void neighboursDoNotDisturb();
};

void TestSecrecy::findsTheFirstLevelThatPasses_data()
{
    QTest::addColumn<QStringList>("blocked"); // files where directories should be
    QTest::addColumn<int>("level");
    QTest::newRow("a fresh installation") << QStringList() << 0;
    QTest::newRow("level 2") << QStringList{"/data/0"_s, "/data/1"_s} << 2;
    QTest::newRow("none") << QStringList{"/data"_s} << 4;
}

void TestSecrecy::findsTheFirstLevelThatPasses()
{
    QFETCH(QStringList, blocked);
    QFETCH(int, level);
    for (const QString &name : blocked)
        QVERIFY(TestInstallation::write(path() + name, "in the way"));
    for (int i = 0; i < level; ++i)
        QTest::ignoreMessage(
            QtWarningMsg,
            qPrintable(
                "Global::checkAccess: Не удалось создать каталог \"%1/data/%2\""_s.arg(path()).arg(i)));
    if (level == 4)
        QTest::ignoreMessage(QtCriticalMsg, "Global: Error! Can not get current secrecy level.");

    QCOMPARE(Global::currentSecrecy(), level % 4);
    QVERIFY(!Global::dataSecrecyDir(level + 1).exists());
    QVERIFY(Global::dataSecrecyDir(level).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot));
}

void TestSecrecy::staysSilentWhereItMayNotWrite()
{
    static int spoken = 0;
    const auto previous =
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) { ++spoken; });
    const auto probe = [](const QString &directory) {
        return Global::checkAccess(QDir(directory)) ? 0 : 10 + spoken;
    };
    QVERIFY(QDir().mkpath(path() + "/data"_s)); // root's, 0755
    QCOMPARE(probe("/proc"_s), 10);
    QCOMPARE(::geteuid() == 0 ? Forked::run([&] { return probe(path() + "/data"_s); }, 65534) : 10, 10);
    qInstallMessageHandler(previous);
}

void TestSecrecy::neighboursDoNotDisturb()
{
    std::atomic<int> refused{0};
    Forked::inThreads(2, [&](int) {
        for (int i = 0; i < 500; ++i)
            refused += Global::checkSecrecy(0) ? 0 : 1;
    });
    QCOMPARE(refused.load(), 0);
}

QTEST_GUILESS_MAIN(TestSecrecy)
#include "tst_secrecy.moc"
