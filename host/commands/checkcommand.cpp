// The command `check`: the host played against a channel of any kind.
#include "host/check/ccheckrun.h"
#include "host/check/cfixture.h"
#include "host/check/checktable.h"
#include "host/cinterruption.h"
#include "host/commands/commandline.h"
#include "host/commands/commands.h"
#include "host/commands/exitcodes.h"
#include "host/console/untrustedtext.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QRegularExpression>

#include <algorithm>
#include <csignal>
#include <cstdio>

#include <sys/prctl.h>

namespace {

void print(const QString &line)
{
    std::fputs((line + QLatin1Char('\n')).toUtf8().constData(), stdout);
    std::fflush(stdout);
}

int refuse(const QString &mistake)
{
    std::fputs(
        QStringLiteral("%1\nПодробнее: abonent check --help\n").arg(printable(mistake)).toUtf8().constData(),
        stderr);
    return ExitUsage;
}

QString row(const Check &check)
{
    return QStringLiteral("%1 %2%3").arg(QString::fromLatin1(check.name).leftJustified(20),
                                         QString::fromUtf8(check.title),
                                         check.isSlow ? QStringLiteral(" (долго)") : QString());
}

int list()
{
    for (const Check &check : checkTable())
        print(row(check));
    return ExitDone;
}

int countOf(const std::vector<CheckResult> &results, CheckResult::Outcome outcome)
{
    return int(std::count_if(results.begin(), results.end(),
                             [outcome](const CheckResult &each) { return each.outcome == outcome; }));
}

void printResult(const CheckResult &result)
{
    if (result.outcome == CheckResult::Skipped)
        return; // all of them in one line at the end
    const bool isPassed = result.outcome == CheckResult::Passed;
    print(QStringLiteral("  %1 %2").arg(QString::fromUtf8(isPassed ? "верно" : "ОШИБКА").leftJustified(8),
                                        row(*result.check)));
    if (!isPassed)
        print(QStringLiteral("           -> %1").arg(printable(result.text)));
}

void printSkipped(const std::vector<CheckResult> &results)
{
    QMap<QString, QStringList> names; // by reason
    for (const CheckResult &result : results) {
        if (result.outcome == CheckResult::Skipped)
            names[result.text] << QLatin1String(result.check->name);
    }
    QStringList parts;
    for (auto it = names.cbegin(); it != names.cend(); ++it)
        parts << QStringLiteral("%1 (%2)").arg(printable(it.key()), it->join(QLatin1String(", ")));
    if (!parts.isEmpty())
        print(QStringLiteral("Пропущено: %1").arg(parts.join(QLatin1String("; "))));
}

/// As a shell takes it.
QString quoted(const QString &word)
{
    static const QRegularExpression plain(QStringLiteral("^[A-Za-z0-9_./:=,@%+-]+$"));
    if (plain.match(word).hasMatch())
        return word;
    return QLatin1Char('\'') + QString(word).replace(QLatin1Char('\''), QStringLiteral("'\\''")) +
           QLatin1Char('\'');
}

/// The command that makes the failed checks once more, with all that they need.
QString repetition(const CheckArguments &arguments, const QStringList &words, const QStringList &failed)
{
    QStringList list{QStringLiteral("abonent"), QStringLiteral("check")};
    for (int i = 0; i < words.size(); ++i) {
        const QString option = words[i].section(QLatin1Char('='), 0, 0);
        const bool isReplaced = option == QLatin1String("--only") || option == QLatin1String("--seed");
        const bool isDropped = option == QLatin1String("--json") || option == QLatin1String("--verbose");
        if (isReplaced && option == words[i])
            ++i; // its value
        else if (!isReplaced && !isDropped)
            list << quoted(words[i]);
    }
    list << QStringLiteral("--only") << failed.join(QLatin1Char(',')) << QStringLiteral("--seed")
         << QString::number(arguments.seed) << QStringLiteral("--verbose");
    return list.join(QLatin1Char(' '));
}

void printSummary(const CCheckRun &run, const CheckArguments &arguments, const QStringList &words)
{
    printSkipped(run.results);
    if (!run.fixedAddress().isNull())
        print(QStringLiteral("Проверки шли по одной: у канала постоянный адрес %1")
                  .arg(printable(run.fixedAddress())));
    const int passed = countOf(run.results, CheckResult::Passed);
    print(QStringLiteral("Верно %1, ошибок %2, пропущено %3")
              .arg(passed)
              .arg(countOf(run.results, CheckResult::Failed))
              .arg(countOf(run.results, CheckResult::Skipped)));
    QStringList failed;
    for (const CheckResult &result : run.results) {
        if (result.outcome == CheckResult::Failed)
            failed << QLatin1String(result.check->name);
    }
    if (!failed.isEmpty()) {
        print(QStringLiteral("Канал НЕ соответствует договору. Повторить: %1")
                  .arg(repetition(arguments, words, failed)));
        print(
            QStringLiteral("С --debugger каждая проверка ждет, пока к ее процессу присоединится отладчик."));
    } else if (passed == 0) {
        print(QStringLiteral("Ничего не проверено."));
    } else {
        print(QStringLiteral("Канал соответствует договору во всем, что проверено."));
    }
}

void printJson(const CheckArguments &arguments, const std::vector<CheckResult> &results)
{
    static constexpr const char *words[] = {"waiting", "running", "passed", "failed", "skipped"};
    QJsonArray checks;
    for (const CheckResult &result : results) {
        checks << QJsonObject{{QStringLiteral("name"), QLatin1String(result.check->name)},
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
        std::fputs((error + QLatin1Char('\n')).toUtf8().constData(), stderr);
        return ExitTrouble;
    }
    CInterruption interruption;
    int signalNumber = 0;
    QObject::connect(&interruption, &CInterruption::requested, &run, [&](int number) {
        signalNumber = number;
        run.interrupt();
    });
    if (!arguments.json)
        print(QStringLiteral("Проверка %1, зерно %2").arg(printable(arguments.channel)).arg(arguments.seed));
    run.run([&](const CheckResult &result) {
        if (!arguments.json)
            printResult(result);
    });
    if (signalNumber != 0)
        return ExitInterrupted + signalNumber;
    if (arguments.json)
        printJson(arguments, run.results);
    else
        printSummary(run, arguments, words);
    if (countOf(run.results, CheckResult::Failed) > 0)
        return ExitBadChannel;
    return countOf(run.results, CheckResult::Passed) > 0 ? ExitDone : ExitTrouble;
}

} // namespace

int runCheck(const CommandLine &line)
{
    const CheckArguments arguments = parseCheckArguments(line.operands);
    if (!arguments.mistake.isNull())
        return refuse(arguments.mistake);
    if (arguments.list)
        return list();
    if (!arguments.child.isEmpty()) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL); // nobody would be left to end a check that hangs
        CFixture fixture(arguments);
        return runCheckHere(fixture, arguments.child);
    }
    for (const QString &name : arguments.only) {
        if (!checkNamed(name))
            return refuse(
                QStringLiteral("Нет такой проверки: %1. Все проверки показывает abonent check --list")
                    .arg(name));
    }
    if (!QFileInfo(arguments.channel).isFile())
        return refuse(QStringLiteral("Нет такого файла: %1").arg(arguments.channel));
    return runParent(arguments, line.operands);
}
