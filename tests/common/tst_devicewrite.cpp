// Writing a whole array to devices of every temper.
#include "common/csettings.h"
#include "common/devicewrite.h"
#include "tests/support/forked.h"
#include "tests/support/scripteddevice.h"
#include "tests/support/testinstallation.h"

#include <QElapsedTimer>
#include <QtTest>

using Steps = QList<qint64>;

class TestDeviceWrite : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { TestInstallation::clean(); }
    void takesLimitFromSettings_data();
    void takesLimitFromSettings();
    void writes_data();
    void writes();
};

// First, each in a process of its own: this one must not have asked the settings yet.
void TestDeviceWrite::takesLimitFromSettings_data()
{
    QTest::addColumn<QByteArray>("stored");
    QTest::addColumn<int>("limit"); // -1: 5000, not waited for
    QTest::newRow("the shortest") << QByteArray("100") << 100;
    QTest::newRow("in range") << QByteArray("300") << 300;
    QTest::newRow("the longest") << QByteArray("10000") << -1;
    QTest::newRow("too short") << QByteArray("99") << -1;
    QTest::newRow("too long") << QByteArray("10001") << -1;
    QTest::newRow("no number") << QByteArray("abc") << -1;
}

void TestDeviceWrite::takesLimitFromSettings()
{
    QFETCH(QByteArray, stored);
    QFETCH(int, limit);
    QVERIFY(TestInstallation::writeSettings("[Details]\nmaxWritingTime=" + stored + "\n"));
    const int result = Forked::run([limit] {
        QElapsedTimer clock;
        clock.start();
        ScriptedDevice none({0});
        // Of a long limit only what it does to the settings: a device that takes all on the second call.
        ScriptedDevice second({0, 3});
        const bool written = Global::writeData(limit < 0 ? second : none, "abc", 0);
        const qint64 past = clock.elapsed();
        return limit < 0 ? written : !written && past > limit && past < limit + 1000;
    });
    QCOMPARE(result, 1);
    const QByteArray kept = limit > 0 || stored == "10000" ? stored : QByteArray("5000");
    QCOMPARE(TestInstallation::settings(), "[Details]\nmaxWritingTime=" + kept + "\n");
}

void TestDeviceWrite::writes_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<Steps>("script");
    QTest::addColumn<int>("timeout");
    QTest::addColumn<bool>("result");
    QTest::addColumn<Steps>("offered");
    const QByteArray data("0123456789");
    QTest::newRow("nothing to do") << QByteArray() << Steps{ScriptedDevice::Fail} << 0 << true << Steps{};
    QTest::newRow("all at once") << data << Steps{10} << 100 << true << Steps{10};
    QTest::newRow("fails at once") << data << Steps{ScriptedDevice::Fail} << 100 << false << Steps{10};
    QTest::newRow("fails later") << data << Steps{4, 0, ScriptedDevice::Fail} << 100 << false
                                 << Steps{10, 6, 6};
    QTest::newRow("in pieces") << data << Steps{3} << 1000 << true << Steps{10, 7, 4, 1};
    QTest::newRow("no limit") << data << Steps{0, 0, 5} << -1 << true << Steps{10, 10, 10, 5};
    QTest::newRow("no limit, closed at last")
        << data << Steps{0, 0, ScriptedDevice::Close} << -1 << false << Steps{10, 10, 10};
}

void TestDeviceWrite::writes()
{
    QFETCH(QByteArray, data);
    QFETCH(Steps, script);
    QFETCH(int, timeout);
    QFETCH(bool, result);
    QFETCH(Steps, offered);
    ScriptedDevice device(script);
    QCOMPARE(Global::writeData(device, data, timeout), result);
    QCOMPARE(device.offered, offered);
    if (result)
        QCOMPARE(device.accepted, data);
    QVERIFY(timeout != 0 || !gCSettingsSettings.load());
}

QTEST_GUILESS_MAIN(TestDeviceWrite)
#include "tst_devicewrite.moc"
