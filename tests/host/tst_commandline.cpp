// Command lines, and the texts and names that come from strangers.
#include "host/commands/calltarget.h"
#include "host/commands/commandhelp.h"
#include "host/commands/commandline.h"
#include "host/commands/commands.h"
#include "host/commands/commandtable.h"
#include "host/commands/exitcodes.h"
#include "host/console/progressrow.h"
#include "host/conversation/cunnamedcallers.h"
#include "host/text/reasons.h"
#include "host/text/textwidth.h"
#include "host/text/untrustedtext.h"
#include "tests/support/testinstallation.h"

#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <cerrno>

namespace {

/// A command line in one text, so that a table can tell what was understood.
QString understood(const QString &arguments)
{
    const CommandLine line = CommandLine::parse(arguments.split(QLatin1Char(' '), Qt::SkipEmptyParts));
    CallTarget target;
    QStringList paths;
    QString mistake = line.mistake;
    const bool isSend = mistake.isNull() && !line.help && line.command && line.command->run == runSend;
    if (isSend)
        mistake = readTarget(line, &target, &paths);
    if (!mistake.isNull())
        return "ошибка: "_s + mistake;
    QString text = line.command ? QLatin1String(line.command->name) : QString();
    if (isSend)
        text +=
            " [%1] %2:%3 retry=%4"_s.arg(target.abonent, target.address).arg(target.port).arg(target.retries);
    text += QLatin1Char(' ') + (isSend ? paths : line.operands).join(QLatin1Char(','));
    for (const CommandOption &option : line.command ? line.command->options : std::vector<CommandOption>()) {
        if (line.has(option.name) && "retry"_s != QLatin1String(option.name))
            text +=
                " %1=%2"_s.arg(QLatin1String(option.name), line.values(option.name).join(QLatin1Char('+')));
    }
    return text + QLatin1String(line.help ? " help" : line.version ? " version" : "");
}

/// What bash offers for the last of some words.
/// @param words as bash has them: those with blanks in quotes
QString offered(const QString &words, const QString &program = "false"_s)
{
    QProcess bash;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("LC_ALL"_s, "C.UTF-8"_s);
    bash.setProcessEnvironment(environment);
    bash.start("bash"_s, {"-c"_s, bashCompletion() +
                                      "\nCOMP_WORDS=(abonent %1) && COMP_CWORD=$((${#COMP_WORDS[@]}-1))\n"
                                      "_abonent %2; echo \"${COMPREPLY[@]}\""_s.arg(words, program)});
    bash.waitForFinished();
    return QString::fromUtf8(bash.readAllStandardOutput()).trimmed();
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
            {"listen --name Я --verbose", "listen  name=Я verbose="},
            {"send A h f g", "send [A] h:18001 retry=0 f,g"},
            {"send A 1.2.3.4:5 --text=t --retry", "send [A] 1.2.3.4:5 retry=-1  text=t"},
            {"send A [::1]:5 --retry 3 f", "send [A] ::1:5 retry=3 f"},
            {"send A ::1 --retry f", "send [A] ::1:18001 retry=-1 f"},
            {"send A h --retry=0 -- --text", "send [A] h:18001 retry=0 --text"},
            {"send A h --text --retry --text -5", "send [A] h:18001 retry=0  text=--retry+-5"},
            {"send A h f -retry -verbose", "send [A] h:18001 retry=-1 f verbose="},
            {"settings set a=b c=d --repair", "settings set,a=b,c=d repair="},
            {"settings show", "settings show"},
            {"check a.so --only a,b --silent-data=", "check a.so only=a,b silent-data="},
            {"check --list", "check  list="},
            {"send --help", "send  help"},
            {"send -h", "send  help"},
            {"help send", "send  help"},
            {"-h", "  help"},
            {"help", "  help"},
            {"--version", "  version"},
            {"", "ошибка: Не указана команда"},
            {"fly", "ошибка: Неизвестная команда: fly"},
            {"help fly", "ошибка: Неизвестная команда: fly"},
            {"--fly", "ошибка: Неизвестный параметр: --fly"},
            {"listen x", "ошибка: Лишний аргумент: x"},
            {"listen --text t", "ошибка: Неизвестный параметр: --text"},
            {"listen -x", "ошибка: Неизвестный параметр: -x"},
            {"listen --verbose=1", "ошибка: Параметр --verbose не принимает значения"},
            {"settings", "ошибка: Не хватает аргументов команды settings"},
            {"settings set", "ошибка: Не хватает аргументов команды settings"},
            {"settings show a", "ошибка: Лишний аргумент: a"},
            {"settings mend", "ошибка: Неизвестное действие команды settings: mend"},
            {"send", "ошибка: Не хватает аргументов команды send"},
            {"send A h", "ошибка: Нечего передавать: укажите файлы, каталоги, - или --text"},
            {"send A 1:2:3 /dev/null", "send [A] :18001 retry=0 1:2:3,/dev/null"},
            {"send A f:0 /dev/null", "send [A] :18001 retry=0 f:0,/dev/null"},
            {"send A /dev/null - --now", "send [A] :18001 retry=0 /dev/null,- now="},
            {"send A h f --name", "ошибка: Параметру --name нужно значение"},
            {"send A h f --name=", "ошибка: Пустое значение параметра --name"},
            {"send A h f --retry=x", "ошибка: Число повторов задано неверно: x"},
            {"ping A h:0", "ping A,h:0"},
            {"send !! f", "ошибка: В имени абонента '!!' нет ни букв, ни цифр"},
        };
        for (const auto &row : rows)
            QTest::newRow(row[0]) << QString::fromUtf8(row[0]) << QString::fromUtf8(row[1]);
    }

    void understands()
    {
        QFETCH(QString, arguments);
        QTEST(understood(arguments), "meaning");
    }

    void completesWhatIsBegun()
    {
        QCOMPARE(offered("se"_s), "send settings"_s);
        QCOMPARE(offered("send --te"_s), "--text"_s);
        QCOMPARE(offered("send A h --text --"_s), QString());
        QCOMPARE(offered("settings s"_s), "show set"_s);
        QCOMPARE(offered("settings set po"_s), "port="_s);
    }

    // The completion asks the program for the names, wherever one is wanted and only there.
    void completesContacts()
    {
        const QTemporaryDir place;
        const QString program = place.filePath("abonent"_s);
        TestInstallation::write(program, "#!/bin/sh\nprintf 'Борис\\nПост 1\\nПост 2\\n'\n");
        QFile::setPermissions(program, QFile::Permissions(0x7777));
        const auto offers = [&program](const QString &words) { return offered(words, program); };
        QCOMPARE(offers("send бо"_s), "Борис"_s);
        QCOMPARE(offers("send --retry --now П"_s), "Пост\\ 1 Пост\\ 2"_s);
        QCOMPARE(offers("ping 'Пост\\ 2'"_s), "Пост\\ 2"_s);
        QCOMPARE(offers("ping '\"Пост 2'"_s), "Пост 2"_s);
        QCOMPARE(offers("contact trust Б"_s), "Борис"_s);
        QCOMPARE(offers("journal --with Б"_s), "Борис"_s);
        for (const QString &none : {"send Анна Б"_s, "contact add Б"_s, "listen --name Б"_s})
            QCOMPARE(offers(none), QString());
    }

    // The manual page in English says of every command what the table says.
    void theTablesAgree()
    {
        const auto shape = [](const std::vector<Command> &table) {
            QStringList rows;
            for (const Command &command : table) {
                if (!command.forms.front().purpose)
                    continue;
                QString row =
                    QLatin1String(command.name) +
                    " %1 paragraphs"_s.arg(QString::fromUtf8(command.details).count(QLatin1Char('\n')));
                for (const CommandForm &form : command.forms)
                    row +=
                        " %1/%2-%3"_s.arg(form.action()).arg(form.leastOperands()).arg(form.mostOperands()) +
                        QLatin1String(form.purpose ? "" : " hidden");
                for (const CommandOption &option : command.options)
                    row += " --%1%2%3%4%5"_s.arg(QLatin1String(option.name))
                               .arg(option.isSwitch())
                               .arg(option.isValueOptional())
                               .arg(option.endsOptions)
                               .arg(option.meaning != nullptr);
                rows << row;
            }
            return rows;
        };
        QCOMPARE(shape(englishCommandTable()), shape(commandTable()));
        const QString english = manualPage(ManualLanguage::English);
        const QRegularExpressionMatch russian = QRegularExpression(".*[а-яё].*"_s).match(english);
        QVERIFY2(!russian.hasMatch(), qPrintable(russian.captured()));
    }

    void keepsStrangersFromActingOnTheTerminal()
    {
        const QChar loneSurrogate(0xd83d);
        QCOMPARE(printable("Имя 😀 \x1b[2J\n\t\u009b\u202e\u2028\u200f\x7f"_s + loneSurrogate),
                 "Имя 😀 \\u001B[2J\\u000A\\u0009\\u009B\\u202E\\u2028\\u200F\\u007F\\uD83D"_s);
    }

    void keepsTextsWithinTheirCells()
    {
        const QString family = "👨‍👩‍👧"_s;
        QCOMPARE(printable("%1\u200dx"_s.arg(family)), "%1\\u200Dx"_s.arg(family)); // joined pictures only
        QCOMPARE(printableLines("a\r\n\tb\n\nc\n"_s, 3),
                 QStringList({"a"_s, " b"_s, ""_s, "... еще строк: 1"_s}));
        QCOMPARE(shortenedInMiddle("длинное имя.pdf"_s, 9), "длин….pdf"_s);
        QCOMPARE(shortenedInMiddle("報告書類.gz"_s, 7), "報….gz"_s);
        QCOMPARE(cutToCells("e\u0301e\u0301e\u0301"_s, 2), "e\u0301…"_s);
        QCOMPARE(shortenedInMiddle(family + family + "abc"_s, 10), family + "…abc"_s);
        Progress progress;
        progress.abonent = "Борис"_s;
        progress.name = "報告書 %1 é́́ с очень длинным именем и продолжением 2026.tar.gz"_s.arg(family);
        progress.state = "принимается"_s;
        for (const qint64 size : {Q_INT64_C(0), Q_INT64_C(1), Q_INT64_C(1) << 40, Q_INT64_C(1) << 62}) {
            for (int cells = 39; cells < 200; ++cells) {
                progress.size = size;
                progress.done = size / 3;
                progress.speed = size / 100000;
                const QString row = progressRow(progress, cells);
                QVERIFY2(cellsOf(row) <= cells && row.contains("принимается"_s), qPrintable(row));
            }
        }
    }

    void saysReasonsInRussian()
    {
        QCOMPARE(explained("Нет связи. Connection refused"_s),
                 "Нет связи. Connection refused (в соединении отказано, по этому адресу и порту никто не "
                 "принимает "
                 "вызовы)"_s);
        QCOMPARE(explained("Connection refused не то"_s), "Connection refused не то"_s);
        QCOMPARE(reasonOf(ENOSPC), "на диске нет места"_s);
        QVERIFY(reasonOf(EACCES, "/proc/1/nosuch"_s)
                    .contains("каталог /proc/1 принадлежит root:root, права r-xr-xr-x"_s));
    }

    void explainsItsExitCodesToAdministrators()
    {
        const QString guide = QString::fromUtf8(TestInstallation::read(QStringLiteral(ADMINISTRATOR_GUIDE)));
        for (const ExitCodeRow &row : exitCodeTable()) {
            const QString line = "| %1 | `%2` | %3 |\n"_s.arg(row.shownCode(), QLatin1String(row.word),
                                                              QString::fromUtf8(row.meaning));
            QVERIFY2(guide.contains(line), qPrintable(line));
        }
        QCOMPARE(exitWord(ExitInterrupted + 15), "interrupted"_s);
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

QTEST_GUILESS_MAIN(TestCommandLine)
#include "tst_commandline.moc"
