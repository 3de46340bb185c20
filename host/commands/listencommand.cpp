// `abonent listen`.
#include "host/commands/commands.h"

#include "host/commands/commandline.h"
#include "host/commands/exitcodes.h"
#include "host/cprogram.h"

#include <QCoreApplication>

int runListen(const CommandLine &line)
{
    CProgram program(line, CConsoleMonitor::Shown, nullptr);
    const int code = program.prepare();
    if (code != ExitDone)
        return code;

    QObject::connect(&program.interruption, &CInterruption::requested, &program.messenger, [&program] {
        program.console.line(QStringLiteral("Завершение работы..."));
        program.messenger.close();
    });
    QObject::connect(&program.messenger, &CMessenger::closed, qApp, &QCoreApplication::quit);
    program.messenger.open();
    QCoreApplication::exec();
    return ExitDone;
}
