// Writing a whole array to devices of every temper.
#include "common/devicewrite.h"
#include "tests/support/forked.h"
#include "tests/support/testinstallation.h"

#include <QElapsedTimer>
#include <QtTest>

namespace {

using Steps = QList<qint64>;
constexpr qint64 fails = -1;
constexpr qint64 closes = -2; // after it has accepted all

/// Each write() is a step of the script, how many bytes it accepts or one of the above; the last one repeats.
class ScriptedDevice : public QIODevice
{
public:
    explicit ScriptedDevice(const Steps &steps) : script(steps) { open(WriteOnly | Unbuffered); }

    QByteArray accepted;
    Steps offered; // the length of each piece

protected:
    qint64 readData(char *, qint64) override { return -1; }
    qint64 writeData(const char *data, qint64 size) override
    {
        const qint64 step = script.at(qMin(offered.size(), script.size() - 1));
        offered += size;
        if (step == closes)
            close();
        const qint64 taken = step == closes ? size : qMin(step, size);
        accepted.append(data, int(qMax(taken, qint64(0))));
        return taken;
    }

private:
    const Steps script;
};

} // namespace

class TestDeviceWrite : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { TestInstallation::clean(); }

    // First, in a process of its own: this one must not have asked the settings yet.
    void takesLimitFromSettings()
    {
        QVERIFY(TestInstallation::writeSettings("[Details]\nmaxWritingTime=300\n"));
        const auto write = [] {
            QElapsedTimer clock;
            clock.start();
            ScriptedDevice device({0});
            if (Global::writeData(device, "abc", 0))
                return "written"_s;
            return clock.hasExpired(40000) ? "too late"_s
                   : clock.hasExpired(299) ? "given up"_s
                                           : "too soon"_s;
        };
        QCOMPARE(Forked::text(write), "given up"_s);
    }

    void writes()
    {
        const struct
        {
            QByteArray data;
            Steps script;
            int timeout;
            bool result;
            Steps offered;
        } rows[] = {
            {"", {fails}, 0, true, {}}, // nothing to do
            {"0123456789", {10}, 100, true, {10}},
            {"0123456789", {fails}, 100, false, {10}},
            {"0123456789", {4, 0, fails}, 100, false, {10, 6, 6}},
            {"0123456789", {3}, 1000, true, {10, 7, 4, 1}},
            {"0123456789", {0, 0, 5}, -1, true, {10, 10, 10, 5}},
            {"0123456789", {0, 0, closes}, -1, false, {10, 10, 10}},
        };
        for (const auto &row : rows) {
            ScriptedDevice device(row.script);
            QCOMPARE(Global::writeData(device, row.data, row.timeout), row.result);
            QCOMPARE(device.offered, row.offered);
            QVERIFY(!row.result || device.accepted == row.data);
        }
    }
};

QTEST_GUILESS_MAIN(TestDeviceWrite)
#include "tst_devicewrite.moc"
