// Texts for sizes, speeds and durations, and the two filters, against what they are defined by.
#include "common/environment.h"
#include "common/namefilter.h"
#include "common/textformat.h"
#include "tests/support/testinstallation.h"

#include <QRandomGenerator>
#include <QRegExp>
#include <QtTest>

using namespace Global;

class TestTextFormat : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void formats()
    {
        const QList<QPair<QString, QString>> texts{
            {sizeString(0), "0 байт"_s},
            {sizeString(-5), "-5 байт"_s},
            {sizeString(1023), "1023 байт"_s},
            {sizeString(1048575), "1024.0 КБайт"_s}, // the class is that of the exact count
            {sizeString(1048576), "1.0 МБайт"_s},
            {sizeString((1LL << 40) - 1), "1024.0 ГБайт"_s},
            {sizeString(1LL << 50), "1024.0 ТБайт"_s},
            {sizeString(1280), "1.2 КБайт"_s}, // 1.25
            {speedString(128), "128 байт/с (1.0 Кбит/с)"_s},
            {speedString(1 << 20), "1.0 МБайт/с (8.0 Мбит/с)"_s},
            {speedStringBits(100), "800 бит/с"_s},
            {timeStringSec(-5), "-5 сек."_s},
            {timeStringSec(59), "59 сек."_s},
            {timeStringSec(60), "1 м. 0 сек."_s},
            {timeStringSec(3599), "59 м. 59 сек."_s},
            {timeStringSec(7322), "2 ч. 2 м."_s},
            {cut("12345678"_s, 5), "12345678"_s},
            {cut("123456789"_s, 5), "12345..."_s},
            {cut("123456789"_s, -1), "123456789..."_s},
            {cut("123456789"_s, std::numeric_limits<int>::max()), "123456789"_s},
        };
        for (const auto &text : texts)
            QCOMPARE(text.first, text.second);

        QString forms; // of 0 to 25, 101, 104, 111, -1, -2
        for (int count = 0; count < 31; ++count)
            forms += declension(count < 26 ? count : QList<int>{101, 104, 111, -1, -2}.at(count - 26), "1"_s,
                                "2"_s, "5"_s);
        QCOMPARE(forms, "5122255555555555555551222512555"_s);
    }

    void roundsAsPrintf()
    {
        for (int round = 0; round < 20000; ++round) { // the first thousand with many ties, such as 1.25
            const int count =
                round < 1000 ? 1024 + round * 51 : QRandomGenerator::global()->bounded(1024, 1 << 20);
            char text[32];
            std::snprintf(text, sizeof text, "%.1f", count / 1024.0); // in the C locale
            QCOMPARE(sizeString(count), QString::fromLatin1(text) + " КБайт"_s);
        }
    }

    void filtersAsTheirExpressions()
    {
        const QRegExp names(
            "[^A-Za-z0-9ЁЙЦУКЕНГШЩЗХЪФЫВАПРОЛДЖЭЯЧСМИТЬБЮёйцукенгшщзхъфывапролджэячсмитьбю]"_s);
        const QRegExp fileNames("[\"<>:\\\\/\\|\\?\\*]|(\\.\\.)"_s);
        const QString alphabet = "..../:*\"<>|?\\aЯ -"_s;
        for (int round = 0; round < 0x10000 + 5000; ++round) { // every code unit, then mixtures
            QString text = round < 0x10000 ? QString(QChar(static_cast<ushort>(round))) : QString();
            while (text.size() < round % 12 && round >= 0x10000)
                text += alphabet.at(QRandomGenerator::global()->bounded(alphabet.size()));
            QCOMPARE(filterNotValidSymbols(text), QString(text).remove(fileNames));
            QCOMPARE(filterName(text), QString(text).remove(names).toLower());
        }
        QCOMPARE(filterName("Иван Petrov-2"_s), "иванpetrov2"_s);
    }

    void asksTheEnvironment()
    {
        qputenv("USER", "ann");
        QCOMPARE(currentSystemUserName(), "ann"_s);
        qunsetenv("USER");
        QVERIFY(currentSystemUserName().isNull());
        QVERIFY(diskFreeSpace(TestInstallation::path() + "/missing"_s) > 0);
        QCOMPARE(diskFreeSpace("/no/such/directory"_s), -1LL);
    }
};

QTEST_GUILESS_MAIN(TestTextFormat)
#include "tst_textformat.moc"
