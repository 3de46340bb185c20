#include "host/check/ccheckrun.h"

#include "host/check/placefile.h"

#include <QCoreApplication>
#include <QDir>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr int endPatienceMs = 3000;
constexpr int shownStepBytes = 1000;

// Short enough for a check that waits for it.
constexpr char usualSettings[] = "[Details]\nmaxWritingTime=500\n";

QString withoutMeaning(const char *check)
{
    return QStringLiteral("без %1 не имеет смысла").arg(QLatin1String(check));
}

void tellDebugger(qint64 process, const char *check)
{
    std::fputs(
        QStringLiteral("Проверка %1 ждет отладчика: gdb -p %2, затем continue. Без него: kill -CONT %2\n")
            .arg(QLatin1String(check), QString::number(process))
            .toUtf8()
            .constData(),
        stderr);
}

QString cannotWrite(const QString &path)
{
    return QStringLiteral("Не удалось подготовить %1 для проверок. Каталог временных файлов задает TMPDIR.")
        .arg(path);
}

} // namespace

CCheckRun::CCheckRun(const CheckArguments &given, const QStringList &givenWords)
    : arguments(given), words(givenWords),
      directory(QDir::tempPath() + QStringLiteral("/abonent-check-XXXXXX"))
{
    for (const Check &check : checkTable()) {
        if (given.only.isEmpty() || given.only.contains(QLatin1String(check.name)))
            results.push_back({&check, CheckResult::Waiting, QString(), 0});
    }
}

CCheckRun::~CCheckRun()
{
    for (const auto &slot : slotList) {
        if (!slot->process || slot->process->state() == QProcess::NotRunning)
            continue;
        slot->process->disconnect(this);
        slot->process->kill();
        slot->process->waitForFinished(endPatienceMs);
    }
}

QString CCheckRun::prepare()
{
    const int count = std::min(arguments.jobs, int(results.size()));
    for (int number = 0; number < count; ++number) {
        slotList.push_back(std::make_unique<Slot>());
        const QString error = prepareSlot(slotList.back().get(), number);
        if (!error.isNull())
            return error;
    }
    return QString();
}

/// The runtime finds settings/ and data/ beside the directory of the executable, so a check that must
/// not touch the user's installation needs an executable elsewhere.
QString CCheckRun::prepareSlot(Slot *slot, int number)
{
    slot->directory = directory.filePath(QString::number(number));
    const QString program = slot->directory + QStringLiteral("/bin/abonent");
    const QString source = number == 0 ? QCoreApplication::applicationFilePath()
                                       : directory.filePath(QStringLiteral("0/bin/abonent"));
    if (!directory.isValid() || !QDir().mkpath(slot->directory + QStringLiteral("/bin")) ||
        !placeFile(source, program))
        return cannotWrite(program);
    return QString();
}

QString CCheckRun::renewInstallation(const Slot &slot) const
{
    const QDir installation(slot.directory);
    QDir(installation.filePath(QStringLiteral("data"))).removeRecursively();
    QDir(installation.filePath(QStringLiteral("settings"))).removeRecursively();
    installation.mkpath(QStringLiteral("settings"));
    const QDir settings(installation.filePath(QStringLiteral("settings")));
    for (const QString &each : arguments.settings) {
        const QString copy = settings.filePath(each.section(QLatin1Char('='), 0, 0));
        if (!QFile::copy(each.section(QLatin1Char('='), 1), copy))
            return cannotWrite(copy);
    }
    QFile usual(settings.filePath(QStringLiteral("settings.ini")));
    if (!usual.exists() && (!usual.open(QIODevice::WriteOnly) || usual.write(usualSettings) < 0))
        return cannotWrite(usual.fileName());
    return QString();
}

void CCheckRun::run(const std::function<void(const CheckResult &)> &tell)
{
    tellResult = tell;
    QMetaObject::invokeMethod(this, &CCheckRun::schedule, Qt::QueuedConnection);
    loop.exec();
}

void CCheckRun::interrupt()
{
    loop.quit();
}

/// Decides about a check that waits. @return whether it can begin now
bool CCheckRun::isRunnable(CheckResult *result)
{
    const Check &check = *result->check;
    const bool needsAll = check.needs == everyOtherCheck;
    for (const CheckResult &other : results) {
        const bool isNeeded = check.needs && (needsAll || std::strcmp(other.check->name, check.needs) == 0);
        const bool isUnderWay = other.outcome <= CheckResult::Running;
        // The rules first: what they have found is not told once more by every other check.
        if (isUnderWay && other.check->isRule() && !check.isRule() && check.needs == other.check->needs)
            return false;
        if (&other == result || !isNeeded || other.outcome == CheckResult::Passed)
            continue;
        if (other.outcome == CheckResult::Failed) {
            result->outcome = CheckResult::Skipped;
            result->text = withoutMeaning(other.check->name);
            return false;
        }
        if (other.outcome == CheckResult::Skipped && !needsAll) {
            result->outcome = CheckResult::Skipped;
            result->text = other.text;
        }
        if (other.outcome != CheckResult::Skipped || !needsAll)
            return false;
    }
    return true;
}

/// Whether a server more might be in the way of another one. The first tells whether it may.
bool CCheckRun::isServerBusy() const
{
    return (!isAddressKnown || !address.isNull()) &&
           std::any_of(results.begin(), results.end(), [](const CheckResult &each) {
               return each.outcome == CheckResult::Running && each.check->startsServer();
           });
}

void CCheckRun::schedule()
{
    for (CheckResult &result : results) {
        const auto slot = std::find_if(slotList.begin(), slotList.end(),
                                       [](const std::unique_ptr<Slot> &each) { return !each->process; });
        if (result.outcome == CheckResult::Waiting && isRunnable(&result) && slot != slotList.end() &&
            !(result.check->startsServer() && isServerBusy()))
            begin(slot->get(), &result);
    }
    while (told < results.size() && results[told].outcome > CheckResult::Running)
        tellResult(results[told++]);
    if (told == results.size())
        loop.quit();
}

void CCheckRun::begin(Slot *slot, CheckResult *result)
{
    const QString directoryOfSlot = slot->directory;
    *slot = Slot();
    slot->directory = directoryOfSlot;
    for (CheckResult &other : results) {
        if (&other == result ||
            (result->check->isRule() && other.check->isRule() && other.outcome == CheckResult::Waiting)) {
            other.outcome = CheckResult::Running;
            slot->checks.push_back(&other);
        }
    }
    const QString error = renewInstallation(*slot);
    if (!error.isNull()) {
        for (CheckResult *each : slot->checks)
            *each = {each->check, CheckResult::Failed, error, 0};
        QMetaObject::invokeMethod(this, &CCheckRun::schedule, Qt::QueuedConnection);
        return;
    }
    slot->clock.start();
    slot->silence = std::make_unique<QTimer>();
    slot->silence->setSingleShot(true);
    connect(slot->silence.get(), &QTimer::timeout, this, [slot] {
        slot->wasSilent = true;
        slot->process->kill();
    });
    slot->process = std::make_unique<QProcess>();
    if (arguments.verbose)
        slot->process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    else
        slot->process->setStandardErrorFile(QProcess::nullDevice());
    connect(slot->process.get(), &QProcess::readyReadStandardOutput, this, [this, slot] { hear(slot); });
    connect(slot->process.get(), qOverload<int, QProcess::ExitStatus>(&QProcess::finished), this,
            [this, slot] { judge(slot); });
    connect(slot->process.get(), &QProcess::errorOccurred, this, [this, slot](QProcess::ProcessError what) {
        if (what == QProcess::FailedToStart)
            judge(slot);
    });
    if (!arguments.debugger)
        slot->silence->start(2 * arguments.limitMs);
    slot->process->start(slot->directory + QStringLiteral("/bin/abonent"), childArguments(*slot));
    if (arguments.debugger)
        tellDebugger(slot->process->processId(), result->check->name);
}

QStringList CCheckRun::childArguments(const Slot &slot) const
{
    QStringList names;
    QStringList broken;
    for (const CheckResult *each : slot.checks)
        names << QLatin1String(each->check->name);
    for (const CheckResult &each : results) {
        if (each.check->isRule() && each.outcome == CheckResult::Failed)
            broken << QLatin1String(each.check->name);
    }
    QStringList list{QStringLiteral("check")};
    list << words << QStringLiteral("--child") << names.join(QLatin1Char(',')) << QStringLiteral("--seed")
         << QString::number(arguments.seed);
    if (!broken.isEmpty())
        list << QStringLiteral("--known") << broken.join(QLatin1Char(','));
    return list;
}

CheckResult *CCheckRun::resultOf(const QString &name)
{
    const auto it = std::find_if(results.begin(), results.end(), [&](const CheckResult &each) {
        return name == QLatin1String(each.check->name);
    });
    return it == results.end() ? nullptr : &*it;
}

/// Takes the child's lines, below; the channel's own are ignored.
///
///   @step TEXT                        what is being done now
///   @address TEXT                     the server has an address that no second one could have
///   @result NAME pass|fail|skip TEXT  a check is over
///   @result NAME broken RULE TEXT     it could not be made, since a rule was broken
void CCheckRun::hear(Slot *slot)
{
    slot->unread += slot->process->readAllStandardOutput();
    for (int end = slot->unread.indexOf('\n'); end >= 0; end = slot->unread.indexOf('\n')) {
        const QString line = QString::fromUtf8(slot->unread.left(end));
        slot->unread.remove(0, end + 1);
        if (line.startsWith(QLatin1String("@step "))) {
            slot->lastStep = line.section(QLatin1Char(' '), 1).left(shownStepBytes);
            if (slot->silence->isActive())
                slot->silence->start();
        } else if (line.startsWith(QLatin1String("@address "))) {
            address = line.section(QLatin1Char(' '), 1);
        } else if (line.startsWith(QLatin1String("@result "))) {
            hearResult(slot, line);
        }
    }
    constexpr int mostUnread = 1024 * 1024;
    if (slot->unread.size() > mostUnread)
        slot->unread.clear();
}

void CCheckRun::hearResult(Slot *slot, const QString &line)
{
    CheckResult *const result = resultOf(line.section(QLatin1Char(' '), 1, 1));
    const QString verdict = line.section(QLatin1Char(' '), 2, 2);
    if (!result || result->outcome > CheckResult::Running)
        return;
    result->text = line.section(QLatin1Char(' '), 3);
    result->ms = slot->clock.elapsed();
    if (verdict == QLatin1String("pass")) {
        result->outcome = CheckResult::Passed;
    } else if (verdict == QLatin1String("skip")) {
        result->outcome = CheckResult::Skipped;
    } else if (verdict == QLatin1String("broken")) {
        const QString rule = result->text.section(QLatin1Char(' '), 0, 0);
        const CheckResult *const other = resultOf(rule);
        const bool isTold = other && other->outcome == CheckResult::Failed;
        result->outcome = isTold ? CheckResult::Skipped : CheckResult::Failed;
        result->text = isTold ? withoutMeaning(other->check->name)
                              : QStringLiteral("%1: %2").arg(rule, result->text.section(QLatin1Char(' '), 1));
    } else {
        result->outcome = CheckResult::Failed;
    }
}

/// The child has ended.
void CCheckRun::judge(Slot *slot)
{
    hear(slot);
    slot->silence->stop();
    const QProcess &process = *slot->process;
    const QString step = QStringLiteral(" Последнее действие: %1.").arg(slot->lastStep);
    QString text =
        QStringLiteral("Процесс проверки завершился сам с кодом %1.").arg(process.exitCode()) + step;
    if (process.error() == QProcess::FailedToStart)
        text = QStringLiteral("Не удалось запустить проверку. ") + process.errorString();
    else if (slot->wasSilent)
        text = QStringLiteral("Канал молчит %1 мс.").arg(2 * arguments.limitMs) + step;
    else if (process.exitStatus() == QProcess::CrashExit)
        text = QStringLiteral("Процесс проверки завершен сигналом %1.").arg(process.exitCode()) + step;
    const bool isOrderly = process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    for (CheckResult *each : slot->checks) {
        const bool isTold = each->outcome == CheckResult::Failed || each->outcome == CheckResult::Skipped;
        if (isTold || (isOrderly && each->outcome == CheckResult::Passed))
            continue;
        const bool isFirst = each == slot->checks.front();
        *each = {each->check, isFirst ? CheckResult::Failed : CheckResult::Skipped,
                 isFirst ? text : withoutMeaning(slot->checks.front()->check->name), slot->clock.elapsed()};
    }
    isAddressKnown = isAddressKnown || slot->checks.front()->check->startsServer();
    slot->process.release()->deleteLater(); // this is called from one of its signals
    QMetaObject::invokeMethod(this, &CCheckRun::schedule, Qt::QueuedConnection);
}
