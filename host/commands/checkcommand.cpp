// The command `check`: the host played against a channel of any kind.
#include "host/check/ccheckrun.h"
#include "host/check/cfixture.h"
#include "host/check/checkreport.h"
#include "host/check/chostrun.h"
#include "host/cinterruption.h"
#include "host/commands/commandhelp.h"
#include "host/commands/commandline.h"
#include "host/commands/commands.h"
#include "host/commands/exitcodes.h"
#include "host/console/printing.h"
#include "host/text/untrustedtext.h"

#include <QFileInfo>

#include <algorithm>
#include <csignal>

#include <sys/prctl.h>

namespace {

int list()
{
    for (const Check &check : checkTable())
        printLine(rowOf(check));
    printLine(QStringLiteral("\nПравила программ, для --host:"));
    for (const Check &rule : hostRuleTable())
        printLine(rowOf(rule));
    return ExitDone;
}

/// @return the exit code
int tell(const CheckArguments &arguments, const QStringList &words, const std::vector<CheckResult> &results,
         int codeWhenBroken)
{
    if (arguments.json)
        printJson(arguments, results);
    else
        printSummary(arguments, words, results);
    const Verdict verdict = verdictOf(results);
    return verdict == Verdict::Kept ? ExitDone : verdict == Verdict::Broken ? codeWhenBroken : ExitTrouble;
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
    if (!arguments.json && !run.fixedAddress().isNull())
        printLine(QStringLiteral("Проверки шли по одной: у канала постоянный адрес %1")
                      .arg(printable(run.fixedAddress())));
    return tell(arguments, words, run.results, ExitBadChannel);
}

int runHost(const CheckArguments &arguments, const QStringList &words)
{
    CHostRun run(arguments);
    if (!arguments.json)
        printLine(QStringLiteral("Проверка программы %1").arg(printable(arguments.host.first())));
    const QString error = run.run();
    if (!error.isNull()) {
        printError(error);
        return ExitTrouble;
    }
    for (const CheckResult &result : run.results) {
        if (!arguments.json)
            printResult(result);
    }
    return tell(arguments, words, run.results, ExitTrouble);
}

} // namespace

int runCheck(const CommandLine &line)
{
    const CheckArguments arguments = readCheckArguments(line);
    if (!arguments.mistake.isNull())
        return refuse(line, arguments.mistake);
    if (arguments.list)
        return list();
    if (!arguments.child.isEmpty()) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL); // nobody would be left to end a check that hangs
        CFixture fixture(arguments);
        return runCheckHere(fixture, arguments.child);
    }
    const bool isHost = !arguments.host.isEmpty();
    const std::vector<Check> &table = isHost ? hostRuleTable() : checkTable();
    for (const QString &name : arguments.only) {
        if (std::none_of(table.begin(), table.end(),
                         [&](const Check &each) { return name == QLatin1String(each.name); }))
            return refuse(
                line, QStringLiteral("Нет такой проверки: %1. Все проверки показывает abonent check --list")
                          .arg(name));
    }
    const QString file = isHost ? arguments.host.first() : arguments.channel;
    if (!QFileInfo(file).isFile())
        return refuse(line, QStringLiteral("Нет такого файла: %1").arg(file));
    return isHost ? runHost(arguments, line.words) : runParent(arguments, line.words);
}
