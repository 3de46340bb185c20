// The byte records: formats that other programs and older files depend on.
#include "tests/support/testinstallation.h"
#include "transportIp/ipsettings.h"

#include <QDataStream>
#include <QTest>

namespace {

const QString damaged = "Данные повреждены"_s;

} // namespace

class TestIpSettings : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void channelRecord()
    {
        const QString version = "Версия настроек %1 не совпадает с текущей 2"_s;
        const char untouched[] = "0000000201 0000000a 00004651 00000100";
        const struct
        {
            const char *data;
            QString error;
            const char *left; // the fields afterwards, as a record
        } rows[] = {
            {"", version.arg(0), untouched},
            {"000002", version.arg(0), untouched},
            {"0000000301", version.arg(3), untouched},
            {"00000002", damaged, "0000000200 00000000 00000000 00000000"},
            {"0000000207 00000005 00004652", damaged, "0000000201 00000005 00004652 00000000"},
            {"0000000201 00000005 004652", damaged, "0000000201 00000005 00000000 00000000"},
            {"0000000200 ffffffff 00011170 00000040 99", {}, "0000000200 ffffffff 00011170 00000040"},
        };
        for (const auto &row : rows) {
            ChannelIpSettings settings;
            QCOMPARE(settings.fromByteArray(QByteArray::fromHex(row.data)), row.error);
            QCOMPARE(settings.toByteArray().toHex(), QByteArray::fromHex(row.left).toHex());
        }
    }

    void abonentRecord()
    {
        for (const QString &address : {QString(), ""_s, "10.0.0.1"_s, "узел.пример"_s}) {
            QByteArray expected; // Qt's stream is the reference
            QDataStream(&expected, QIODevice::WriteOnly) << 2 << address << 18001;
            AbonentIpSettings settings;
            settings.address = address;
            QCOMPARE(settings.toByteArray(), expected);

            AbonentIpSettings copy{"other"_s, 1};
            QVERIFY(copy.fromByteArray(expected).isNull());
            QVERIFY(copy.address == address && copy.address.isNull() == address.isNull());
            QCOMPARE(copy.port, 18001);
        }
    }

    void damagedAbonentRecord()
    {
        for (const char *hex : {"00000002 000000", "00000002 00000004 0041",
                                "00000002 fffffffe 0041 0041", // the length lies
                                "00000002 00000003 00004652",  // an odd one: read on right behind it
                                "00000002 ffffffff 0000"}) {
            const QByteArray data = QByteArray::fromHex(hex);
            AbonentIpSettings settings{"before"_s, 7};
            QCOMPARE(settings.fromByteArray(data), damaged);
            QVERIFY(settings.address.isNull());

            // Qt's stream, whose rules other readers follow.
            QDataStream stream(data);
            int version = 0;
            int port = 0;
            QString address;
            stream >> version >> address >> port;
            QVERIFY(stream.status() != QDataStream::Ok);
            QCOMPARE(settings.port, port);
        }
    }
};

QTEST_GUILESS_MAIN(TestIpSettings)
#include "tst_ipsettings.moc"
