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

} // namespace

int runSend(const CommandLine &line)
{
    CDelivery delivery;
    CProgram program(line, line.verbose ? CConsoleMonitor::Shown : CConsoleMonitor::Silent, &delivery);
    for (const QString &text : line.texts)
        delivery.addText(text);
    for (const QString &file : line.files)
        delivery.addFile(file);
    if (!delivery.hasAny(CDelivery::Waiting)) {
        for (const CDelivery::Item &item : delivery.items())
            program.console.error(QStringLiteral("Не передано: %1: %2")
                                      .arg(item.isText ? item.title : item.path, item.failure));
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
