// Texts for sizes, speeds and durations, and the two filters, against what they are defined by.
#include "common/environment.h"
#include "common/namefilter.h"
#include "common/textformat.h"

#include <QRandomGenerator>
#include <QRegExp>
#include <QtTest>

using namespace Global;

class TestTextFormat : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void formats();
    void roundsAsPrintf();
    void filtersAsTheirExpressions();
    void asksTheEnvironment();
};

void TestTextFormat::formats()
{
    const auto words = [](int count) {
        return declension(count, QStringLiteral("1"), QStringLiteral("2"), QStringLiteral("5"));
    };
    const auto nine = QStringLiteral("123456789");
    const QList<QPair<QString, const char *>> texts{
        {sizeString(0), "0 байт"},
        {sizeString(-5), "-5 байт"},
        {sizeString(1023), "1023 байт"},
        {sizeString(1024), "1.0 КБайт"},
        {sizeString(1048575), "1024.0 КБайт"}, // the class is that of the exact count
        {sizeString(1048576), "1.0 МБайт"},
        {sizeString(1LL << 30), "1.0 ГБайт"},
        {sizeString((1LL << 40) - 1), "1024.0 ГБайт"},
        {sizeString(1LL << 50), "1024.0 ТБайт"},
        {speedString(100), "100 байт/с (800 бит/с)"},
        {speedString(128), "128 байт/с (1.0 Кбит/с)"},
        {speedString(1024), "1.0 КБайт/с (8.0 Кбит/с)"},
        {speedStringBits(1LL << 37), "1.0 Тбит/с"},
        {timeStringSec(-5), "-5 сек."},
        {timeStringSec(59), "59 сек."},
        {timeStringSec(60), "1 м. 0 сек."},
        {timeStringSec(3599), "59 м. 59 сек."},
        {timeStringSec(3600), "1 ч. 0 м."},
        {timeStringSec(7322), "2 ч. 2 м."},
        {cut(nine.left(8), 5), "12345678"},
        {cut(nine, 5), "12345..."},
        {cut(nine, 0), "..."},
        {cut(nine, -1), "123456789..."},
        {cut(nine, std::numeric_limits<int>::max()), "123456789"},
        {edition(), "linux edition"},
    };
    for (const auto &text : texts)
        QCOMPARE(text.first, QString::fromUtf8(text.second));

    for (const int count : {1, 21, 101, -99})
        QCOMPARE(words(count), count > 0 ? QStringLiteral("1") : QStringLiteral("5"));
    for (const int count : {2, 3, 4, 22, 104})
        QCOMPARE(words(count), QStringLiteral("2"));
    for (const int count : {0, 5, 9, 10, 11, 12, 14, 19, 20, 111, 112, -1, -2})
        QCOMPARE(words(count), QStringLiteral("5"));
}

void TestTextFormat::roundsAsPrintf()
{
    for (int round = 0; round < 20000; ++round) {
        const long long count = round < 1000 ? 1024 + round * 51 // many ties, such as 1.25
                                             : QRandomGenerator::global()->bounded(1024, 1 << 20);
        const QByteArray expected = [&] {
            char text[32];
            std::snprintf(text, sizeof text, "%.1f ", static_cast<double>(count) / 1024); // in the C locale
            return QByteArray(text) + "КБайт";
        }();
        if (count < 1 << 20)
            QCOMPARE(sizeString(count), QString::fromUtf8(expected));
    }
    QCOMPARE(sizeString(1280), QString::fromUtf8("1.2 КБайт")); // 1.25
}

void TestTextFormat::filtersAsTheirExpressions()
{
    const QRegExp names(QString::fromUtf8("[^A-Za-z0-9ЁЙЦУКЕНГШЩЗХЪФЫВАПРОЛДЖЭЯЧСМИТЬБЮ"
                                          "ёйцукенгшщзхъфывапролджэячсмитьбю]"));
    const QRegExp fileNames(QStringLiteral("[\"<>:\\\\/\\|\\?\\*]|(\\.\\.)"));
    for (int unit = 0; unit < 0x10000; ++unit) {
        const QString text(QChar(static_cast<ushort>(unit)));
        QCOMPARE(filterName(text), QString(text).remove(names).toLower());
        QCOMPARE(filterNotValidSymbols(text), QString(text).remove(fileNames));
    }

    const QString alphabet = QString::fromUtf8("..../:*\"<>|?\\aЯ -");
    for (int round = 0; round < 5000; ++round) {
        QString text;
        while (text.size() < round % 12)
            text += alphabet.at(QRandomGenerator::global()->bounded(alphabet.size()));
        QCOMPARE(filterNotValidSymbols(text), QString(text).remove(fileNames));
        QCOMPARE(filterName(text), QString(text).remove(names).toLower());
    }
    const QString shared = QString::fromUtf8("Иван Petrov-2");
    QCOMPARE(filterName(shared), QString::fromUtf8("иванpetrov2"));
    QCOMPARE(shared, QString::fromUtf8("Иван Petrov-2")); // the caller's own stays
}

void TestTextFormat::asksTheEnvironment()
{
    qputenv("USER", "ann");
    QCOMPARE(currentSystemUserName(), QStringLiteral("ann"));
    qunsetenv("USER");
    QVERIFY(currentSystemUserName().isNull());

    QVERIFY(diskFreeSpace(QCoreApplication::applicationDirPath() + QLatin1String("/missing")) > 0);
    QCOMPARE(diskFreeSpace(QStringLiteral("/no/such/directory")), -1LL);

    QVERIFY(!isEmergecyExit());
    setEmergecyExit(true);
    QVERIFY(isEmergecyExit());
}

QTEST_GUILESS_MAIN(TestTextFormat)
#include "tst_textformat.moc"
