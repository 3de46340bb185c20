// The byte records: formats that other programs and older files depend on.
#include "transportIp/ipsettings.h"

#include <QDataStream>
#include <QTest>

namespace {

QByteArray fromHex(const char *text)
{
    return QByteArray::fromHex(text);
}

const QString damaged = QStringLiteral("Данные повреждены");

} // namespace

class TestIpSettings : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void channelRecord()
    {
        ChannelIpSettings settings;
        QCOMPARE(settings.toByteArray(), fromHex("0000000201 0000000a 00004651 00000100"));
        settings = {false, -1, 70000, 64};
        ChannelIpSettings copy;
        QVERIFY(copy.fromByteArray(settings.toByteArray() + "behind").isNull());
        QCOMPARE(copy.toByteArray(), settings.toByteArray());
    }

    void damagedChannelRecord_data()
    {
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<QString>("error");
        QTest::addColumn<QByteArray>("left"); // the fields afterwards, as a record
        const QByteArray untouched = ChannelIpSettings().toByteArray();
        const QString version = QStringLiteral("Версия настроек %1 не совпадает с текущей 2");
        QTest::newRow("empty") << QByteArray() << version.arg(0) << untouched;
        QTest::newRow("three bytes") << fromHex("000002") << version.arg(0) << untouched;
        QTest::newRow("newer") << fromHex("0000000301") << version.arg(3) << untouched;
        QTest::newRow("version only")
            << fromHex("00000002") << damaged << fromHex("0000000200 00000000 00000000 00000000");
        QTest::newRow("after port") << fromHex("0000000207 00000005 00004652") << damaged
                                    << fromHex("0000000201 00000005 00004652 00000000");
        QTest::newRow("inside port") << fromHex("0000000201 00000005 004652") << damaged
                                     << fromHex("0000000201 00000005 00000000 00000000");
    }

    void damagedChannelRecord()
    {
        QFETCH(QByteArray, data);
        ChannelIpSettings settings;
        QTEST(settings.fromByteArray(data), "error");
        QTEST(settings.toByteArray(), "left");
    }

    void abonentRecord_data()
    {
        QTest::addColumn<QString>("address");
        QTest::newRow("null") << QString();
        QTest::newRow("empty") << QStringLiteral("");
        QTest::newRow("ipv4") << QStringLiteral("10.0.0.1");
        QTest::newRow("cyrillic") << QStringLiteral("узел.пример");
    }

    void abonentRecord()
    {
        QFETCH(QString, address);
        AbonentIpSettings settings;
        settings.address = address;
        QByteArray expected; // Qt's stream is the reference
        QDataStream(&expected, QIODevice::WriteOnly) << 2 << address << 18001;
        QCOMPARE(settings.toByteArray(), expected);

        AbonentIpSettings copy{QStringLiteral("other"), 1};
        QVERIFY(copy.fromByteArray(expected).isNull());
        QCOMPARE(copy.address, address);
        QCOMPARE(copy.address.isNull(), address.isNull());
        QCOMPARE(copy.port, 18001);
    }

    void damagedAbonentRecord_data()
    {
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<int>("port");
        QTest::newRow("length cut") << fromHex("00000002 000000") << 0;
        QTest::newRow("text cut") << fromHex("00000002 00000004 0041") << 0;
        QTest::newRow("length lies") << fromHex("00000002 fffffffe 0041 0041") << 0;
        QTest::newRow("odd length") << fromHex("00000002 00000003 00004652")
                                    << 18002; // read on right behind it
        QTest::newRow("port cut") << fromHex("00000002 ffffffff 0000") << 0;
    }

    void damagedAbonentRecord()
    {
        QFETCH(QByteArray, data);
        AbonentIpSettings settings{QStringLiteral("before"), 7};
        QCOMPARE(settings.fromByteArray(data), damaged);
        QVERIFY(settings.address.isNull());
        QTEST(settings.port, "port");

        // The same faults through Qt's stream, whose rules other readers follow.
        QDataStream stream(data);
        int version = 0;
        int port = 0;
        QString address;
        stream >> version >> address >> port;
        QVERIFY(stream.status() != QDataStream::Ok);
        QCOMPARE(settings.port, port);
    }
};

QTEST_GUILESS_MAIN(TestIpSettings)
#include "tst_ipsettings.moc"
