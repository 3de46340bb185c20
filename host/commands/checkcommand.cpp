// The command `check`: the host played against a channel of any kind.
#include "host/check/ccheckrun.h"
#include "host/check/cfixture.h"
#include "host/check/checktable.h"
#include "host/cinterruption.h"
#include "host/commands/commandhelp.h"
#include "host/commands/commandline.h"
#include "host/commands/commands.h"
#include "host/commands/exitcodes.h"
#include "host/console/printing.h"
#include "host/text/untrustedtext.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <csignal>
#include <cstdio>

#include <sys/prctl.h>

namespace {

int list()
{
    for (const Check &check : checkTable())
        printLine(QStringLiteral("%1 %2").arg(QString::fromLatin1(check.name).leftJustified(20),
                                              QString::fromUtf8(check.title)));
    return ExitDone;
}

/// @return the first name that is no check's; null: none
QString unknownCheck(const QStringList &names)
{
    for (const QString &name : names) {
        const auto &table = checkTable();
        if (std::none_of(table.begin(), table.end(),
                         [&](const Check &each) { return name == QLatin1String(each.name); }))
            return name;
    }
    return QString();
}

int countOf(const std::vector<CheckResult> &results, CheckResult::Outcome outcome)
{
    return int(std::count_if(results.begin(), results.end(),
                             [outcome](const CheckResult &each) { return each.outcome == outcome; }));
}

void printResult(const CheckResult &result)
{
    const char *word = result.outcome == CheckResult::Passed   ? "верно"
                       : result.outcome == CheckResult::Failed ? "ОШИБКА"
                                                               : "пропуск";
    printLine(QStringLiteral("  %1 %2 %3")
                  .arg(QString::fromUtf8(word).leftJustified(8),
                       QString::fromLatin1(result.name).leftJustified(20), QString::fromUtf8(result.title)));
    if (result.outcome == CheckResult::Failed)
        printLine(QStringLiteral("           -> %1").arg(printable(result.text)));
    else if (result.outcome == CheckResult::Skipped)
        printLine(QStringLiteral("              (%1)").arg(printable(result.text)));
}

void printSummary(const CheckArguments &arguments, const std::vector<CheckResult> &results)
{
    const int failed = countOf(results, CheckResult::Failed);
    printLine(QStringLiteral("Верно %1, ошибок %2, пропущено %3")
                  .arg(countOf(results, CheckResult::Passed))
                  .arg(failed)
                  .arg(countOf(results, CheckResult::Skipped)));
    if (failed == 0)
        return printLine(QStringLiteral("Канал соответствует договору во всем, что проверено."));
    QStringList names;
    for (const CheckResult &result : results) {
        if (result.outcome == CheckResult::Failed)
            names << QLatin1String(result.name);
    }
    printLine(
        QStringLiteral(
            "Канал НЕ соответствует договору. Повторить: abonent check %1 --only %2 --seed %3 --verbose")
            .arg(arguments.channel, names.join(QLatin1Char(',')), QString::number(arguments.seed)));
}

void printJson(const CheckArguments &arguments, const std::vector<CheckResult> &results)
{
    static constexpr const char *words[] = {"waiting", "running", "passed", "failed", "skipped"};
    QJsonArray checks;
    for (const CheckResult &result : results) {
        checks << QJsonObject{{QStringLiteral("name"), QLatin1String(result.name)},
                              {QStringLiteral("result"), QLatin1String(words[result.outcome])},
                              {QStringLiteral("text"), result.text},
                              {QStringLiteral("ms"), result.ms}};
    }
    const QJsonObject whole{{QStringLiteral("channel"), arguments.channel},
                            {QStringLiteral("seed"), qint64(arguments.seed)},
                            {QStringLiteral("passed"), countOf(results, CheckResult::Passed)},
                            {QStringLiteral("failed"), countOf(results, CheckResult::Failed)},
                            {QStringLiteral("skipped"), countOf(results, CheckResult::Skipped)},
                            {QStringLiteral("checks"), checks}};
    std::fputs(QJsonDocument(whole).toJson().constData(), stdout);
}

int runParent(const CheckArguments &arguments, const QStringList &words)
{
    CCheckRun run(arguments, words);
    const QString error = run.prepare();
    if (!error.isNull()) {
        printError(error);
        return ExitTrouble;
    }
    CInterruption interruption;
    int signalNumber = 0;
    QObject::connect(&interruption, &CInterruption::requested, &run, [&](int number) {
        signalNumber = number;
        run.interrupt();
    });
    if (!arguments.json)
        printLine(
            QStringLiteral("Проверка %1, зерно %2").arg(printable(arguments.channel)).arg(arguments.seed));
    run.run([&](const CheckResult &result) {
        if (!arguments.json)
            printResult(result);
    });
    if (signalNumber != 0)
        return ExitInterrupted + signalNumber;
    if (arguments.json)
        printJson(arguments, run.results);
    else
        printSummary(arguments, run.results);
    return countOf(run.results, CheckResult::Failed) == 0 ? ExitDone : ExitBadChannel;
}

} // namespace

int runCheck(const CommandLine &line)
{
    const CheckArguments arguments = readCheckArguments(line);
    if (!arguments.mistake.isNull())
        return refuse(line, arguments.mistake);
    if (arguments.list)
        return list();
    if (!arguments.child.isNull()) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL); // nobody would be left to end a check that hangs
        CFixture fixture(arguments);
        return runCheckHere(fixture, arguments.child);
    }
    const QString unknown = unknownCheck(arguments.only);
    if (!unknown.isNull())
        return refuse(line,
                      QStringLiteral("Нет такой проверки: %1. Все проверки показывает abonent check --list")
                          .arg(unknown));
    if (!QFileInfo(arguments.channel).isFile())
        return refuse(line, QStringLiteral("Нет такого файла: %1").arg(arguments.channel));
    return runParent(arguments, line.words);
}
