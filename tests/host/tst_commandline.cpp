// Command lines, and the texts and names that come from strangers.
#include "host/commands/commandline.h"
#include "host/console/untrustedtext.h"
#include "host/conversation/cunnamedcallers.h"
#include "tests/support/testinstallation.h"

#include <QtTest>

namespace {

/// A command line in one text, so that a table can tell what was understood.
QString understood(const QString &arguments)
{
    const CommandLine line = parseCommandLine(arguments.split(QLatin1Char(' '), Qt::SkipEmptyParts));
    if (!line.mistake.isNull())
        return "ошибка: "_s + line.mistake;
    return "%1 [%2] %3:%4 %5 text=%6 name=%7 retry=%8%9"_s.arg(
        line.command, line.abonent, line.address, QString::number(line.port),
        (line.files + line.operands).join(QLatin1Char(',')), line.texts.join(QLatin1Char(0x2b)), line.name,
        QString::number(line.retries),
        QLatin1String(line.help      ? " help"
                      : line.verbose ? " verbose"
                                     : ""));
}

class Caller final : public CUnnamedCaller
{
public:
    void giveWay() override { ++asked; }
    int asked = 0;
};

} // namespace

class TestCommandLine : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void understands_data()
    {
        QTest::addColumn<QString>("arguments");
        QTest::addColumn<QString>("meaning");
        const char *const rows[][2] = {
            {"listen --name Я --verbose", "listen [] :18001  text= name=Я retry=0 verbose"},
            {"send A h f g", "send [A] h:18001 f,g text= name= retry=0"},
            {"send A 1.2.3.4:5 --text=t --retry", "send [A] 1.2.3.4:5  text=t name= retry=-1"},
            {"send A [::1]:5 --retry 3 f", "send [A] ::1:5 f text= name= retry=3"},
            {"send A ::1 --retry f", "send [A] ::1:18001 f text= name= retry=-1"},
            {"send A h --retry=0 -- --text", "send [A] h:18001 --text text= name= retry=0"},
            {"settings set a=b c=d", "settings [] :18001 set,a=b,c=d text= name= retry=0"},
            {"send --help", "send [] :18001  text= name= retry=0 help"},
            {"help send", "send [] :18001  text= name= retry=0 help"},
            {"", "ошибка: Не указана команда"},
            {"fly", "ошибка: Неизвестная команда: fly"},
            {"listen x", "ошибка: Лишний аргумент: x"},
            {"listen --text t", "ошибка: Неизвестный параметр: --text"},
            {"send A", "ошибка: Не хватает аргументов команды send"},
            {"send A h", "ошибка: Нечего передавать: укажите файлы или --text"},
            {"send A h f --name", "ошибка: Параметру --name нужно значение"},
            {"send A h f --retry=x", "ошибка: Число повторов задано неверно: x"},
            {"send A h:0 f", "ошибка: Адрес абонента задан неверно: h:0"},
            {"send A h:65536 f", "ошибка: Адрес абонента задан неверно: h:65536"},
            {"send A h: f", "ошибка: Адрес абонента задан неверно: h:"},
            {"send A :5 f", "ошибка: Адрес абонента задан неверно: :5"},
            {"send A [::1 f", "ошибка: Адрес абонента задан неверно: [::1"},
        };
        for (const auto &row : rows)
            QTest::newRow(row[0]) << QString::fromUtf8(row[0]) << QString::fromUtf8(row[1]);
    }

    void understands()
    {
        QFETCH(QString, arguments);
        QTEST(understood(arguments), "meaning");
    }

    void keepsStrangersFromActingOnTheTerminal()
    {
        const QChar loneSurrogate(0xd83d);
        QCOMPARE(printable("Имя 😀 \x1b[2J\n\t\u009b\u202e\u2028\u200f\x7f"_s + loneSurrogate),
                 "Имя 😀 \\u001B[2J\\u000A\\u0009\\u009B\\u202E\\u2028\\u200F\\u007F\\uD83D"_s);
    }

    void keepsFilesInTheirDirectory()
    {
        const char *const rows[][2] = {
            {"отчет.txt", "отчет.txt"},
            {"/etc/passwd", "passwd"},
            {"..\\..\\a.txt", "a.txt"},
            {"../..", "файл"},
            {".", "файл"},
            {"", "файл"},
            {".bashrc", "bashrc"},
            {"a\nb\x1b[2J.txt", "ab[2J.txt"},
            {"\xe2\x80\xae"
             "cod.exe",
             "cod.exe"},
            {"a:b*c?.txt", "abc.txt"},
        };
        for (const auto &row : rows)
            QCOMPARE(safeFileName(QString::fromUtf8(row[0])), QString::fromUtf8(row[1]));
        const QString longName = safeFileName(QString(300, QChar(0x044f)) + QLatin1String(".tar"));
        QVERIFY(longName.toUtf8().size() <= 200 && longName.endsWith("яя.tar"_s));
    }

    void letsTheOldestSilentCallerGiveWay()
    {
        const QString here = "here"_s;
        const QString there = "there"_s;
        CUnnamedCallers callers(3, 2);
        Caller a, b, c, d, e;
        callers.add(&a, here);
        callers.add(&b, there);
        callers.add(&c, here);
        callers.add(&d, here); // the third from here: the oldest from here gives way
        QCOMPARE(QString::asprintf("%d%d%d%d", a.asked, b.asked, c.asked, d.asked), "1000"_s);
        callers.remove(&c);
        callers.add(&e, there); // room again
        callers.add(&a, here);  // the fourth in all: the oldest of all
        QCOMPARE(QString::asprintf("%d%d%d%d%d", a.asked, b.asked, c.asked, d.asked, e.asked), "11000"_s);
    }
};

QTEST_APPLESS_MAIN(TestCommandLine)
#include "tst_commandline.moc"
