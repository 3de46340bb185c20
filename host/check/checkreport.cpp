#include "host/check/checkreport.h"

#include "host/console/printing.h"
#include "host/text/untrustedtext.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QRegularExpression>

#include <algorithm>
#include <cstdio>

namespace {

int countOf(const std::vector<CheckResult> &results, CheckResult::Outcome outcome)
{
    return int(std::count_if(results.begin(), results.end(),
                             [outcome](const CheckResult &each) { return each.outcome == outcome; }));
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
        printLine(QStringLiteral("Пропущено: %1").arg(parts.join(QLatin1String("; "))));
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
    const int host = words.indexOf(QStringLiteral("--host")); // the words behind it are the host's own
    const QStringList own = words.mid(0, host);
    for (int i = 0; i < own.size(); ++i) {
        const QString option = own[i].section(QLatin1Char('='), 0, 0);
        const bool isReplaced = option == QLatin1String("--only") || option == QLatin1String("--seed");
        const bool isDropped = option == QLatin1String("--json") || option == QLatin1String("--verbose");
        if (isReplaced && option == own[i])
            ++i; // its value
        else if (!isReplaced && !isDropped)
            list << quoted(own[i]);
    }
    list << QStringLiteral("--only") << failed.join(QLatin1Char(','));
    if (host < 0)
        list << QStringLiteral("--seed") << QString::number(arguments.seed);
    list << QStringLiteral("--verbose");
    const QStringList hostsOwn = host < 0 ? QStringList() : words.mid(host);
    for (const QString &word : hostsOwn)
        list << quoted(word);
    return list.join(QLatin1Char(' '));
}

} // namespace

QString rowOf(const Check &check)
{
    return QStringLiteral("%1 %2%3").arg(QString::fromLatin1(check.name).leftJustified(20),
                                         QString::fromUtf8(check.title),
                                         check.isSlow ? QStringLiteral(" (долго)") : QString());
}

void printResult(const CheckResult &result)
{
    if (result.outcome == CheckResult::Skipped)
        return; // all of them in one line at the end
    const bool isPassed = result.outcome == CheckResult::Passed;
    printLine(QStringLiteral("  %1 %2").arg(QString::fromUtf8(isPassed ? "верно" : "ОШИБКА").leftJustified(8),
                                            rowOf(*result.check)));
    if (!isPassed)
        printLine(QStringLiteral("           -> %1").arg(printable(result.text)));
}

void printSummary(const CheckArguments &arguments, const QStringList &words,
                  const std::vector<CheckResult> &results)
{
    const bool isHost = !arguments.host.isEmpty();
    const QString subject = isHost ? QStringLiteral("Программа") : QStringLiteral("Канал");
    printSkipped(results);
    const int passed = countOf(results, CheckResult::Passed);
    printLine(QStringLiteral("Верно %1, ошибок %2, пропущено %3")
                  .arg(passed)
                  .arg(countOf(results, CheckResult::Failed))
                  .arg(countOf(results, CheckResult::Skipped)));
    QStringList failed;
    for (const CheckResult &result : results) {
        if (result.outcome == CheckResult::Failed)
            failed << QLatin1String(result.check->name);
    }
    if (failed.isEmpty())
        return printLine(
            passed == 0 ? QStringLiteral("Ничего не проверено.")
                        : QStringLiteral("%1 соответствует договору во всем, что проверено.").arg(subject));
    printLine(QStringLiteral("%1 НЕ соответствует договору. Повторить: %2")
                  .arg(subject, repetition(arguments, words, failed)));
    if (!isHost)
        printLine(
            QStringLiteral("С --debugger каждая проверка ждет, пока к ее процессу присоединится отладчик."));
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
    const bool isHost = !arguments.host.isEmpty();
    const QJsonObject whole{{isHost ? QStringLiteral("host") : QStringLiteral("channel"),
                             isHost ? arguments.host.first() : arguments.channel},
                            {QStringLiteral("seed"), qint64(arguments.seed)},
                            {QStringLiteral("passed"), countOf(results, CheckResult::Passed)},
                            {QStringLiteral("failed"), countOf(results, CheckResult::Failed)},
                            {QStringLiteral("skipped"), countOf(results, CheckResult::Skipped)},
                            {QStringLiteral("checks"), checks}};
    std::fputs(QJsonDocument(whole).toJson().constData(), stdout);
}

Verdict verdictOf(const std::vector<CheckResult> &results)
{
    if (countOf(results, CheckResult::Failed) > 0)
        return Verdict::Broken;
    return countOf(results, CheckResult::Passed) > 0 ? Verdict::Kept : Verdict::NothingChecked;
}
