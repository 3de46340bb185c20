// The kind as an object, and the ladder of the retry delay.
#include "tests/support/testinstallation.h"
#include "transportIp/cipplugin.h"

#include "interfaces/cchannelserver.h"

#include <QTest>

#include <limits>
#include <memory>

class TestCIpPlugin : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void makesServersThatAreNotEquipped()
    {
        const CIpPlugin plugin;
        QCOMPARE(plugin.type(), 1);
        QCOMPARE(plugin.name(), QStringLiteral("IP-канал"));
        const std::unique_ptr<CChannelServer> server(plugin.create());
        QVERIFY(!server->parent() && !server->protocolFactory && !server->monitor && !server->journal);
        QVERIFY(server->isHardwareOn());
    }

    void stepsTheDelay_data()
    {
        QTest::addColumn<int>("from");
        QTest::addColumn<int>("longer"); // with the bound at 3600
        QTest::addColumn<int>("shorter");
        const int rows[][3] = {{-50, -40, 10},     {10, 20, 10},      {15, 25, 10},     {29, 39, 19},
                               {30, 60, 20},       {31, 61, 10},      {35, 65, 10},     {120, 150, 90},
                               {149, 179, 119},    {150, 300, 120},   {151, 301, 10},   {450, 600, 300},
                               {600, 900, 450},    {601, 901, 301},   {900, 1200, 600}, {3400, 3600, 3100},
                               {3600, 3600, 3300}, {5000, 3600, 4700}};
        for (const auto &row : rows)
            QTest::newRow(qPrintable(QString::number(row[0]))) << row[0] << row[1] << row[2];
        constexpr int most = std::numeric_limits<int>::max();
        QTest::newRow("most") << most << 3600 << most - 300;
        QTest::newRow("least") << std::numeric_limits<int>::min() << std::numeric_limits<int>::min() + 10
                               << 10;
    }

    void stepsTheDelay()
    {
        // Read once per process, so the one bound serves all rows.
        static const bool written =
            TestInstallation::writeSettings("[Details]\ntransportIpMaxReconnectTimeout=3600\n");
        QVERIFY(written);

        QFETCH(int, from);
        int delay = from;
        CIpPlugin().incCallTimeout(&delay);
        QTEST(delay, "longer");
        delay = from;
        CIpPlugin().decCallTimeout(&delay);
        QTEST(delay, "shorter");
    }
};

QTEST_GUILESS_MAIN(TestCIpPlugin)
#include "tst_cipplugin.moc"
