#include "host/check/chostrun.h"

#include "host/check/placefile.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <algorithm>

#include <csignal>

#include <sys/prctl.h>

namespace {

constexpr int pollMs = 20;
/// Begins without what this program does about signals, and ends with it.
class CHostProcess final : public QProcess
{
    void setupChildProcess() override
    {
        sigset_t none;
        ::sigemptyset(&none);
        ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    }
};

constexpr int graceMs = 1000; // for a host that ends by itself, when nothing more happens

} // namespace

// clang-format off
const std::vector<Check> &hostRuleTable()
{
    static const auto *const table = new std::vector<Check>{
        {"version-first", nullptr, "apiVersion() вызвана раньше всего", nullptr},
        {"log-first", nullptr, "initDebug() вызвана раньше instance()", nullptr},
        {"members-set", nullptr, "фабрика, монитор и журнал заданы до start()", nullptr},
        {"calls-in-order", nullptr, "слоты вызываются между start() и stop(), stop() - один раз", nullptr},
        {"server-thread", nullptr, "функции и слоты сервера вызываются в его потоке", nullptr},
        {"known-connection", nullptr, "номера соединений взяты из connected", nullptr},
        {"free-log-mutex", nullptr, "сервер вызывается со свободным мьютексом лога", nullptr},
        {"stopped", nullptr, "сервер остановлен до конца программы, и его finished() дождались", nullptr},
        {"kept-until-finished", nullptr, "сервер удален не раньше finished()", nullptr},
        {"deleted-in-thread", nullptr, "сервер удален в своем потоке", nullptr},
        {"server-deleted", nullptr, "сервер удален до конца программы", nullptr},
        {"delete-instance", nullptr, "объект канала отдан deleteInstance()", nullptr},
        {"monitor-threads", nullptr, "монитор отвечает многим потокам сразу и никого не держит", nullptr},
        {"journal-threads", nullptr, "журнал отвечает многим потокам сразу и никого не держит", nullptr},
        {"factory-threads", nullptr, "createProtocol() отвечает многим потокам сразу и никого не держит", nullptr},
        {"protocol-thread", nullptr, "протокол живет в потоке, который его попросил", nullptr},
        {"channel-bound", nullptr, "протокол работает с данным ему каналом", nullptr},
        {"channel-thread", nullptr, "канал вызывается только в потоке соединения", nullptr},
        {"channel-freed", nullptr, "канал удаляется вместе с протоколом", nullptr},
        {"protocol-kept", nullptr, "протокол удаляет не программа", nullptr},
        {"block-size", nullptr, "write() получает не больше idealBlockSize()", nullptr},
        {"connection-loop", nullptr, "протокол не держит цикл событий своего потока", nullptr},
        {"name-told", nullptr, "remoteAbonentNameChanged несет remoteAbonentName, из потока соединения", nullptr},
        {"stop-returns", nullptr, "stop() протокола возвращается сразу", nullptr},
        {"finished-after-stop", nullptr, "после stop() протокол вовремя говорит finished()", nullptr},
        {"finished-after-end", nullptr, "после конца соединения протокол вовремя говорит finished()", nullptr},
        {"finished-once", nullptr, "finished() протокола приходит один раз", nullptr},
        {"no-exception", nullptr, "из программы не выходят исключения", nullptr},
        {"ends", nullptr, "программа заканчивается сама, без сбоя и вовремя", nullptr},
    };
    return *table;
}
// clang-format on

CHostRun::CHostRun(const CheckArguments &given)
    : arguments(given), directory(QDir::tempPath() + QStringLiteral("/abonent-check-XXXXXX"))
{
    for (const Check &rule : hostRuleTable()) {
        if (given.only.isEmpty() || given.only.contains(QLatin1String(rule.name)))
            results.push_back({&rule, CheckResult::Waiting, QString(), 0});
    }
}

QString CHostRun::run()
{
    for (const char *calls : {"answer", "refuse"}) {
        const QString error = runOnce(calls);
        if (!error.isNull())
            return error;
    }
    for (CheckResult &each : results) {
        if (each.outcome == CheckResult::Waiting)
            each = {each.check, CheckResult::Skipped, QStringLiteral("случая не было"), 0};
    }
    return isLoaded
               ? QString()
               : QStringLiteral("Программа не загрузила модуль канала. Если она не ищет его в channelPlugins "
                                "рядом с собой, дайте ей его имя аргументом {}.");
}

QString CHostRun::runOnce(const char *calls)
{
    const QString place = directory.filePath(QLatin1String(calls));
    heardBytes = 0;
    isIdle = wasAsked = wasKilled = wasStopped = isStuck = false;
    const QString error = prepare(place, calls);
    if (!error.isNull())
        return error;
    if (!process->waitForStarted())
        return QStringLiteral("Не удалось запустить %1. %2")
            .arg(arguments.host.first(), process->errorString());
    waitForEnd();
    hear();
    if (isLoaded)
        judgeEnd();
    return QString();
}

/// An installation of the host: its program, and the observer as the only channel.
QString CHostRun::prepare(const QString &place, const char *calls)
{
    const QString program = place + QStringLiteral("/bin/") + QFileInfo(arguments.host.first()).fileName();
    const QString observer = place + QStringLiteral("/bin/channelPlugins/libobserver.so");
    const QString source =
        QCoreApplication::applicationDirPath() + QStringLiteral("/checkPlugins/libobserver.so");
    reportName = place + QStringLiteral("/report");
    QFile report(reportName);
    if (!directory.isValid() || !QDir().mkpath(QFileInfo(observer).path()) ||
        !placeFile(arguments.host.first(), program) || !placeFile(source, observer) ||
        !report.open(QIODevice::WriteOnly))
        return QStringLiteral(
                   "Не удалось подготовить %1 для проверки. Каталог временных файлов задает TMPDIR.")
            .arg(place);

    QStringList words = arguments.host.mid(1);
    words.replaceInStrings(QStringLiteral("{}"), observer);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("ABONENT_OBSERVER_REPORT"), reportName);
    environment.insert(QStringLiteral("ABONENT_OBSERVER_CALLS"), QLatin1String(calls));
    process = std::make_unique<CHostProcess>();
    process->setProcessEnvironment(environment);
    process->setWorkingDirectory(place);
    process->setStandardInputFile(QProcess::nullDevice());
    if (arguments.verbose) {
        process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    } else {
        process->setStandardOutputFile(QProcess::nullDevice());
        process->setStandardErrorFile(QProcess::nullDevice());
    }
    process->start(program, words);
    return QString();
}

/// A host may end by itself when its work is done; else it is asked to, as an administrator would.
void CHostRun::waitForEnd()
{
    QElapsedTimer sinceChange;
    sinceChange.start();
    while (!process->waitForFinished(pollMs)) {
        const bool wasIdle = isIdle;
        const qint64 heardBefore = heardBytes;
        hear();
        if (isIdle != wasIdle || heardBytes != heardBefore)
            sinceChange.start();
        if (!wasAsked && sinceChange.hasExpired(isIdle ? graceMs : 2 * arguments.limitMs)) {
            wasAsked = true;
            isStuck = wasStopped;
            process->terminate();
            sinceChange.start();
        } else if (wasAsked && sinceChange.hasExpired(2 * arguments.limitMs)) {
            wasKilled = true;
            process->kill();
        }
    }
}

void CHostRun::hear()
{
    QFile report(reportName);
    if (!report.open(QIODevice::ReadOnly) || !report.seek(heardBytes))
        return;
    const QByteArray bytes = report.readAll();
    const int end = bytes.lastIndexOf('\n') + 1;
    heardBytes += end;
    const QList<QByteArray> lines = bytes.left(end).split('\n');
    for (const QByteArray &line : lines)
        take(QString::fromUtf8(line));
}

/// "kept RULE", "broken RULE text", "idle"
void CHostRun::take(const QString &line)
{
    const QString verdict = line.section(QLatin1Char(' '), 0, 0);
    const QString rule = line.section(QLatin1Char(' '), 1, 1);
    isLoaded = isLoaded || !line.isEmpty();
    if (verdict == QLatin1String("idle"))
        isIdle = true;
    if (rule == QLatin1String("stopped"))
        wasStopped = true;
    CheckResult *const result = resultOf(rule);
    if (!result || result->outcome == CheckResult::Failed)
        return;
    if (verdict == QLatin1String("kept"))
        result->outcome = CheckResult::Passed;
    else if (verdict == QLatin1String("broken"))
        *result = {result->check, CheckResult::Failed, line.section(QLatin1Char(' '), 2), 0};
}

/// What the observer could not see. A crash that a broken rule has led to is not told once more.
void CHostRun::judgeEnd()
{
    const bool isBroken = std::any_of(results.begin(), results.end(), [](const CheckResult &each) {
        return each.outcome == CheckResult::Failed;
    });
    const bool isCrash = process->exitStatus() == QProcess::CrashExit;
    const bool isBySignal = isCrash && wasAsked && process->exitCode() == SIGTERM;
    if (CheckResult *ends = resultOf(QStringLiteral("ends"))) {
        if (isStuck && !isBroken)
            *ends = {ends->check, CheckResult::Failed,
                     QStringLiteral("Сервер остановлен, а программа не заканчивается"), 0};
        else if (wasKilled && !isBroken)
            *ends = {ends->check, CheckResult::Failed,
                     QStringLiteral("Программа не закончилась ни сама, ни по SIGTERM"), 0};
        else if (isCrash && !isBySignal && !isBroken)
            *ends = {ends->check, CheckResult::Failed,
                     QStringLiteral("Программа завершена сигналом %1").arg(process->exitCode()), 0};
        else if (!isCrash && ends->outcome == CheckResult::Waiting)
            ends->outcome = CheckResult::Passed;
    }
    CheckResult *const stopped = resultOf(QStringLiteral("stopped"));
    if (stopped && !wasStopped && !isCrash && !isBroken)
        *stopped = {stopped->check, CheckResult::Failed,
                    QStringLiteral("Программа закончилась без finished() сервера"), 0};
}

CheckResult *CHostRun::resultOf(const QString &rule)
{
    const auto it = std::find_if(results.begin(), results.end(), [&](const CheckResult &each) {
        return rule == QLatin1String(each.check->name);
    });
    return it == results.end() ? nullptr : &*it;
}
