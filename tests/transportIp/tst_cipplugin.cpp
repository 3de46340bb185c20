// The ladder of the retry delay.
#include "tests/support/testinstallation.h"
#include "transportIp/cipplugin.h"

#include <QTest>

#include <limits>

class TestCIpPlugin : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void stepsTheDelay()
    {
        QVERIFY(TestInstallation::writeSettings("[Details]\ntransportIpMaxReconnectTimeout=3600\n"));
        constexpr int most = std::numeric_limits<int>::max();
        constexpr int least = std::numeric_limits<int>::min();
        const auto steps = [](int from, int longer, int shorter) {
            int delays[] = {from, from};
            CIpPlugin().incCallTimeout(&delays[0]);
            CIpPlugin().decCallTimeout(&delays[1]);
            return delays[0] == longer && delays[1] == shorter;
        };
        const int rows[][3] = {{-50, -40, 10},     {10, 20, 10},      {15, 25, 10},     {29, 39, 19},
                               {30, 60, 20},       {31, 61, 10},      {35, 65, 10},     {120, 150, 90},
                               {149, 179, 119},    {150, 300, 120},   {151, 301, 10},   {450, 600, 300},
                               {600, 900, 450},    {601, 901, 301},   {900, 1200, 600}, {3400, 3600, 3100},
                               {3600, 3600, 3300}, {5000, 3600, 4700}};
        for (const auto &row : rows)
            QVERIFY2(steps(row[0], row[1], row[2]), qPrintable(QString::number(row[0])));
        QVERIFY(steps(most, 3600, most - 300) && steps(least, least + 10, 10));
    }
};

QTEST_GUILESS_MAIN(TestCIpPlugin)
#include "tst_cipplugin.moc"
