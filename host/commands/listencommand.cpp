// `abonent listen`: the resident of the installation.
#include "host/commands/commands.h"

#include "host/commands/commandline.h"
#include "host/commands/exitcodes.h"
#include "host/conversation/transporttasks.h"
#include "host/cprogram.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

namespace {

constexpr int lockPollMs = 50;
constexpr int restartMs = 3000; // the one before may be ending

} // namespace

int runListen(const CommandLine &line)
{
    CConsole console;
    CProgram program(line, CProgram::Resident, console);
    bool isInterrupted = false;
    QObject::connect(&program.interruption, &CInterruption::requested, &program.messenger, [&] {
        isInterrupted = true;
        console.line(QStringLiteral("Завершение работы..."));
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
        console.error(
            QStringLiteral("Сообщения этой установки уже принимает и передает другой abonent listen"));
        return ExitTrouble;
    }
    if (!transport.tryLock(program.level))
        console.line(QStringLiteral("Ждем, пока закончит работающий abonent send"));
    waitFor(transport, -1);
    if (isInterrupted)
        return ExitDone;
    if (line.has("to")) {
        const QString error = program.handOutTo(line.value("to"));
        if (!error.isNull()) {
            console.error(error);
            return ExitUsage;
        }
    }
    const int code = program.prepare();
    if (code != ExitDone)
        return code;

    QObject::connect(&program.messenger, &CMessenger::closed, qApp, &QCoreApplication::quit);
    program.open();
    QCoreApplication::exec();
    return ExitDone;
}
