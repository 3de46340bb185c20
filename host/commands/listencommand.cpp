// `abonent listen`: the resident of the installation.
#include "host/commands/commands.h"

#include "host/commands/commandline.h"
#include "host/commands/exitcodes.h"
#include "host/commands/failures.h"
#include "host/conversation/transporttasks.h"
#include "host/cprogram.h"
#include "host/service/cmetricsfile.h"
#include "host/service/cservicenotifier.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

#include <optional>

namespace {

constexpr int lockPollMs = 50;
constexpr int restartMs = 3000; // the one before may be ending
constexpr int delayMs = 5000;   // between words to the service manager that the start takes longer

} // namespace

int runListen(const CommandLine &line)
{
    CConsole console;
    CProgram program(line, CProgram::Resident, console);
    CServiceNotifier service;
    bool isInterrupted = false;
    QObject::connect(&program.interruption, &CInterruption::requested, &program.messenger, [&] {
        isInterrupted = true;
        console.line(QStringLiteral("Завершение работы..."));
        service.stopping(QStringLiteral("Завершение работы"));
        program.close();
    });
    CTransportLock resident(CTransportLock::Resident);
    CTransportLock transport;
    const auto waitFor = [&](CTransportLock &lock, int limitMs) { // negative: none
        QElapsedTimer clock;
        clock.start();
        while (!lock.tryLock(program.level) && !isInterrupted && (limitMs < 0 || clock.elapsed() < limitMs)) {
            QCoreApplication::processEvents();
            QThread::msleep(lockPollMs);
        }
        return lock.isLocked();
    };
    if (!waitFor(resident, restartMs)) {
        return fail(
            console, ExitTrouble,
            QStringLiteral("Сообщения этой установки уже принимает и передает другой abonent listen"));
    }
    if (!transport.tryLock(program.level)) {
        const QString reason = QStringLiteral("Ждем, пока закончит работающий abonent send");
        console.line(reason);
        do
            service.delay(reason);
        while (!waitFor(transport, delayMs) && !isInterrupted);
    }
    if (isInterrupted)
        return ExitDone;
    if (line.has("to")) {
        const QString error = program.handOutTo(line.value("to"));
        if (!error.isNull())
            return fail(console, ExitUsage, error);
    }
    const int code = program.prepare();
    if (code != ExitDone)
        return code;

    QObject::connect(&program.messenger, &CMessenger::closed, qApp, &QCoreApplication::quit);
    program.open();
    service.begin([&program] { return program.state(); });
    std::optional<CMetricsFile> metrics;
    if (line.has("metrics"))
        metrics.emplace(
            line.value("metrics"), program.level, program.ownName, [&program] { return program.metrics(); },
            [&console](const QString &trouble) { console.error(trouble); });
    QCoreApplication::exec();
    return ExitDone;
}
