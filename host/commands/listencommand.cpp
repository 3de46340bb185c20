// `abonent listen`: the resident of the installation.
#include "host/commands/commands.h"

#include "host/commands/commandline.h"
#include "host/commands/exitcodes.h"
#include "host/conversation/handout.h"
#include "host/conversation/transporttasks.h"
#include "host/cprogram.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

namespace {

constexpr int lockPatienceMs = 3000; // a `send` that is just ending
constexpr int lockPollMs = 50;

} // namespace

int runListen(const CommandLine &line)
{
    CConsole console;
    CProgram program(line, CProgram::Resident, console);
    CTransportLock lock;
    QElapsedTimer clock;
    clock.start();
    while (!lock.tryLock(program.level)) {
        if (clock.elapsed() > lockPatienceMs) {
            console.error(
                QStringLiteral("Сообщения этой установки уже принимает и передает другая программа: "
                               "abonent listen или send"));
            return ExitTrouble;
        }
        QThread::msleep(lockPollMs);
    }
    if (line.has("to")) {
        const QString place = line.value("to");
        const QString error = checkHandOut(place);
        if (!error.isNull()) {
            console.error(error);
            return ExitUsage;
        }
        program.onStored = [&console, place](const QString &directory) {
            const QString trouble = handOut(directory, place);
            if (!trouble.isNull())
                console.error(trouble);
        };
    }
    const int code = program.prepare();
    if (code != ExitDone)
        return code;

    QObject::connect(&program.interruption, &CInterruption::requested, &program.messenger, [&] {
        console.line(QStringLiteral("Завершение работы..."));
        program.close();
    });
    QObject::connect(&program.messenger, &CMessenger::closed, qApp, &QCoreApplication::quit);
    program.open();
    QCoreApplication::exec();
    return ExitDone;
}
