// Writing a whole array to devices of every temper.
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
    void takesLimitFromSettings();
    void writes_data();
    void writes();
};

// First, in a process of its own: this one must not have asked the settings yet.
void TestDeviceWrite::takesLimitFromSettings()
{
    QVERIFY(TestInstallation::writeSettings("[Details]\nmaxWritingTime=300\n"));
    const auto write = [] {
        QElapsedTimer clock;
        clock.start();
        ScriptedDevice device({0});
        return !Global::writeData(device, "abc", 0) && clock.elapsed() >= 300 && clock.elapsed() < 2000;
    };
    QCOMPARE(Forked::run(write), 1);
}

void TestDeviceWrite::writes_data()
{
    QTest::addColumn<Steps>("script");
    QTest::addColumn<int>("timeout");
    QTest::addColumn<bool>("result");
    QTest::addColumn<Steps>("offered");
    QTest::newRow("all at once") << Steps{10} << 100 << true << Steps{10};
    QTest::newRow("fails at once") << Steps{ScriptedDevice::Fail} << 100 << false << Steps{10};
    QTest::newRow("fails later") << Steps{4, 0, ScriptedDevice::Fail} << 100 << false << Steps{10, 6, 6};
    QTest::newRow("in pieces") << Steps{3} << 1000 << true << Steps{10, 7, 4, 1};
    QTest::newRow("no limit") << Steps{0, 0, 5} << -1 << true << Steps{10, 10, 10, 5};
    QTest::newRow("closed at last") << Steps{0, 0, ScriptedDevice::Close} << -1 << false << Steps{10, 10, 10};
}

void TestDeviceWrite::writes()
{
    QFETCH(Steps, script);
    QFETCH(int, timeout);
    QFETCH(bool, result);
    ScriptedDevice device(script);
    QCOMPARE(Global::writeData(device, "0123456789", timeout), result);
    QTEST(device.offered, "offered");
    QVERIFY(!result || device.accepted == "0123456789");
    ScriptedDevice failing({ScriptedDevice::Fail});
    QVERIFY(Global::writeData(failing, QByteArray(), 0) && failing.offered.isEmpty()); // nothing to do
}

QTEST_GUILESS_MAIN(TestDeviceWrite)
#include "tst_devicewrite.moc"
