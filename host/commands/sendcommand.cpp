// `abonent send`.
#include "host/commands/commands.h"

#include "host/commands/commandline.h"
#include "host/commands/exitcodes.h"
#include "host/cprogram.h"
#include "host/delivery/cdelivery.h"
#include "host/delivery/cdeliverycall.h"

#include <QCoreApplication>

namespace {

constexpr int ipKind = 1; // CChannelPlugin::type() of the channel whose records we write
constexpr int mostTextBytes = 1024 * 1024;

} // namespace

int runSend(const CommandLine &line)
{
    CDelivery delivery;
    CProgram program(line, line.verbose ? CConsoleMonitor::Shown : CConsoleMonitor::Silent, &delivery);
    if (!line.text.isNull())
        delivery.addText(line.text);
    for (const QString &file : line.files) {
        const QString error = delivery.addFile(file);
        if (!error.isNull()) {
            program.console.line(error);
            return ExitUsage;
        }
    }
    if (line.text.toUtf8().size() > mostTextBytes) {
        program.console.line(QStringLiteral("Текст длиннее 1 МБайт: передайте его файлом"));
        return ExitUsage;
    }
    int exitCode = program.prepare();
    if (exitCode != ExitDone)
        return exitCode;
    if (!program.messenger.keepOnly(ipKind))
        return ExitTrouble;

    // The server listens as well, if the port is free. If it is not, because `listen` of the same
    // installation has it, that is no concern of a sender.
    if (!line.verbose)
        program.journal.hide(program.messenger.plugin()->name());
    program.messenger.open();

    CDeliveryCall call(line, delivery, program.messenger, program.console);
    QObject::connect(&call, &CDeliveryCall::over, &program.messenger, [&program, &exitCode](int code) {
        exitCode = code;
        program.messenger.close();
    });
    QObject::connect(&program.interruption, &CInterruption::requested, &call,
                     [&call](int signalNumber) { call.cancel(ExitInterrupted + signalNumber); });
    QObject::connect(&program.messenger, &CMessenger::closed, qApp, &QCoreApplication::quit);
    QMetaObject::invokeMethod(&call, &CDeliveryCall::begin, Qt::QueuedConnection);
    QCoreApplication::exec();
    return exitCode;
}
