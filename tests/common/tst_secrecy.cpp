// The access probe and the level it finds.
#include "common/directorylayout.h"
#include "common/secrecy.h"
#include "tests/support/forked.h"
#include "tests/support/testinstallation.h"

#include <QThread>
#include <QtTest>

#include <unistd.h>

using TestInstallation::path;
using TestInstallation::write;

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
    QTest::newRow("level 2") << QStringList{QStringLiteral("/data/0"), QStringLiteral("/data/1")} << 2;
    QTest::newRow("none") << QStringList{QStringLiteral("/data")} << -1;
}

void TestSecrecy::findsTheFirstLevelThatPasses()
{
    QFETCH(QStringList, blocked);
    QFETCH(int, level);
    const int refused = level < 0 ? 4 : level;
    for (const QString &name : blocked)
        QVERIFY(write(path() + name, "in the way"));
    for (int i = 0; i < refused; ++i) {
        const QString text = QStringLiteral("Global::checkAccess: Не удалось создать каталог \"%1/data/%2\"");
        QTest::ignoreMessage(QtWarningMsg, text.arg(path()).arg(i).toUtf8().constData());
    }
    if (level < 0)
        QTest::ignoreMessage(QtCriticalMsg, "Global: Error! Can not get current secrecy level.");

    QCOMPARE(Global::currentSecrecy(), qMax(level, 0));
    QVERIFY(!QFileInfo::exists(path() + QStringLiteral("/data/%1").arg(level + 1)) || level < 0);
    QVERIFY(level < 0 ||
            Global::dataSecrecyDir(level).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot));
}

void TestSecrecy::staysSilentWhereItMayNotWrite()
{
    static bool spoken = false;
    const auto previous =
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) { spoken = true; });
    QVERIFY(!Global::checkAccess(QDir(QStringLiteral("/proc"))));
    if (::geteuid() == 0) {
        QVERIFY(QDir().mkpath(path() + QLatin1String("/data/0"))); // root's, 0755
        QCOMPARE(Forked::run([] { return Global::checkSecrecy(0) ? 1 : 2; }, 65534), 2);
    }
    qInstallMessageHandler(previous);
    QVERIFY(!spoken);
}

void TestSecrecy::neighboursDoNotDisturb()
{
    std::atomic<int> refused{0};
    const auto probe = [&] {
        for (int i = 0; i < 300; ++i)
            refused += Global::checkSecrecy(0) ? 0 : 1;
        return refused > 0 ? 1 : 0;
    };
    QVERIFY(Global::checkSecrecy(0));
    QList<QThread *> threads;
    for (int i = 0; i < 4; ++i)
        threads += QThread::create([&] { probe(); });
    for (QThread *thread : qAsConst(threads))
        thread->start();
    for (QThread *thread : qAsConst(threads)) {
        thread->wait();
        delete thread;
    }
    QCOMPARE(refused.load(), 0);
}

QTEST_GUILESS_MAIN(TestSecrecy)
#include "tst_secrecy.moc"
