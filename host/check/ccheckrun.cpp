#include "host/check/ccheckrun.h"

#include "host/check/checktable.h"

#include <QCoreApplication>
#include <QDir>

#include <algorithm>
#include <cstring>

#include <unistd.h>

namespace {

constexpr int endPatienceMs = 3000;
constexpr int shownStepBytes = 1000;

// Short enough for a check that waits for it.
constexpr char usualSettings[] = "[Details]\nmaxWritingTime=500\n";

/// Puts a file in place; a hard link counts as a place of its own, a symbolic one would not.
bool place(const QString &from, const QString &to)
{
    return ::link(from.toUtf8().constData(), to.toUtf8().constData()) == 0 || QFile::copy(from, to);
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
            results.push_back({check.name, check.title, CheckResult::Waiting, QString(), 0});
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
        !place(source, program))
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
    const auto &table = checkTable();
    const auto check = std::find_if(table.begin(), table.end(),
                                    [&](const Check &each) { return each.name == result->name; });
    const bool needsAll = check->needs == everyOtherCheck;
    for (const CheckResult &other : results) {
        const bool isNeeded = check->needs && (needsAll || std::strcmp(other.name, check->needs) == 0);
        if (&other == result || !isNeeded || other.outcome == CheckResult::Passed)
            continue;
        if (other.outcome == CheckResult::Failed) {
            result->outcome = CheckResult::Skipped;
            result->text = QStringLiteral("без %1 не имеет смысла").arg(QLatin1String(other.name));
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

void CCheckRun::schedule()
{
    for (std::size_t i = 0; i < results.size(); ++i) {
        const auto slot = std::find_if(slotList.begin(), slotList.end(),
                                       [](const std::unique_ptr<Slot> &each) { return !each->process; });
        if (results[i].outcome == CheckResult::Waiting && isRunnable(&results[i]) && slot != slotList.end())
            begin(slot->get(), i);
    }
    while (told < results.size() && results[told].outcome > CheckResult::Running)
        tellResult(results[told++]);
    if (told == results.size())
        loop.quit();
}

void CCheckRun::begin(Slot *slot, std::size_t check)
{
    results[check].outcome = CheckResult::Running;
    const QString error = renewInstallation(*slot);
    if (!error.isNull())
        return finish(check, CheckResult::Failed, error);

    const QString name = QLatin1String(results[check].name);
    const QString directoryOfSlot = slot->directory;
    *slot = Slot();
    slot->directory = directoryOfSlot;
    slot->check = check;
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
    slot->silence->start(2 * arguments.limitMs);
    slot->process->start(slot->directory + QStringLiteral("/bin/abonent"),
                         QStringList(QStringLiteral("check"))
                             << words << QStringLiteral("--child") << name << QStringLiteral("--seed")
                             << QString::number(arguments.seed));
}

/// Takes the child's lines: "@step text", "@result pass|fail|skip text"; the channel's own are ignored.
void CCheckRun::hear(Slot *slot)
{
    slot->unread += slot->process->readAllStandardOutput();
    for (int end = slot->unread.indexOf('\n'); end >= 0; end = slot->unread.indexOf('\n')) {
        const QString line = QString::fromUtf8(slot->unread.left(end));
        slot->unread.remove(0, end + 1);
        if (line.startsWith(QLatin1String("@step "))) {
            slot->lastStep = line.section(QLatin1Char(' '), 1).left(shownStepBytes);
            slot->silence->start();
        } else if (line.startsWith(QLatin1String("@result "))) {
            slot->verdict = line.section(QLatin1Char(' '), 1, 1);
            slot->text = line.section(QLatin1Char(' '), 2);
        }
    }
    constexpr int mostUnread = 1024 * 1024;
    if (slot->unread.size() > mostUnread)
        slot->unread.clear();
}

/// The child has ended.
void CCheckRun::judge(Slot *slot)
{
    hear(slot);
    slot->silence->stop();
    const QProcess &process = *slot->process;
    const QString step = QStringLiteral(" Последнее действие: %1.").arg(slot->lastStep);
    CheckResult::Outcome outcome = CheckResult::Failed;
    QString text = slot->text;
    if (process.error() == QProcess::FailedToStart)
        text = QStringLiteral("Не удалось запустить проверку. ") + process.errorString();
    else if (slot->wasSilent)
        text = QStringLiteral("Канал молчит %1 мс.").arg(2 * arguments.limitMs) + step;
    else if (slot->verdict == QLatin1String("fail"))
        text = slot->text;
    else if (process.exitStatus() == QProcess::CrashExit)
        text = QStringLiteral("Процесс проверки завершен сигналом %1.").arg(process.exitCode()) + step;
    else if (process.exitCode() != 0 || slot->verdict.isNull())
        text = QStringLiteral("Процесс проверки завершился сам с кодом %1.").arg(process.exitCode()) + step;
    else
        outcome = slot->verdict == QLatin1String("skip") ? CheckResult::Skipped : CheckResult::Passed;

    results[slot->check].ms = slot->clock.elapsed();
    slot->process.release()->deleteLater(); // this is called from one of its signals
    finish(slot->check, outcome, text);
}

void CCheckRun::finish(std::size_t check, CheckResult::Outcome outcome, const QString &text)
{
    results[check].outcome = outcome;
    results[check].text = text;
    QMetaObject::invokeMethod(this, &CCheckRun::schedule, Qt::QueuedConnection);
}
