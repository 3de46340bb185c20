// `abonent send`.
#include "host/commands/commands.h"

#include "host/commands/commandhelp.h"
#include "host/commands/commandline.h"
#include "host/commands/exitcodes.h"
#include "host/conversation/cdelivery.h"
#include "host/cprogram.h"
#include "host/delivery/cdeliverycall.h"

#include <QCoreApplication>

namespace {

constexpr int ipKind = 1; // CChannelPlugin::type() of the channel whose records we write

int exitCodeOf(CDeliveryCall::End how, int signalNumber)
{
    switch (how) {
    case CDeliveryCall::Delivered:
        return ExitDone;
    case CDeliveryCall::NoAnswer:
        return ExitNoAnswer;
    case CDeliveryCall::SomebodyElse:
        return ExitSomebodyElse;
    case CDeliveryCall::NotDelivered:
        return ExitNotDelivered;
    case CDeliveryCall::Cancelled:
        break;
    }
    return ExitInterrupted + signalNumber;
}

} // namespace

QString readTarget(const CommandLine &line, CallTarget *target)
{
    target->abonent = line.operands[0];
    if (target->abonent.isEmpty())
        return QStringLiteral("Пустое имя абонента");
    if (!target->setAddress(line.operands[1]))
        return QStringLiteral("Адрес абонента задан неверно: %1").arg(line.operands[1]);
    if (!line.has("retry"))
        return QString();
    const QString retries = line.value("retry");
    bool isNumber = true;
    target->retries = retries.isEmpty() ? CallTarget::retryForEver : retries.toInt(&isNumber);
    return isNumber && target->retries >= CallTarget::retryForEver
               ? QString()
               : QStringLiteral("Число повторов задано неверно: %1").arg(retries);
}

int runSend(const CommandLine &line)
{
    CallTarget target;
    const QString mistake = readTarget(line, &target);
    if (!mistake.isNull())
        return refuse(line, mistake);
    const QStringList files = line.operands.mid(2);
    if (files.isEmpty() && !line.has("text"))
        return refuse(line, QStringLiteral("Нечего передавать: укажите файлы или --text"));

    const bool isVerbose = line.has("verbose");
    CDelivery delivery;
    CProgram program(line, isVerbose ? CConsoleMonitor::Shown : CConsoleMonitor::Silent, &delivery);
    const QStringList texts = line.values("text");
    for (const QString &text : texts)
        delivery.addText(text);
    for (const QString &file : files)
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
    if (!isVerbose)
        program.journal.hide(program.messenger.plugin()->name());
    program.messenger.open();

    CDeliveryCall call(target, delivery, *program.messenger.server(), *program.messenger.plugin(),
                       program.console);
    int signalNumber = 0;
    QObject::connect(&call, &CDeliveryCall::over, &program.messenger, [&](CDeliveryCall::End how) {
        exitCode = exitCodeOf(how, signalNumber);
        program.messenger.close();
    });
    QObject::connect(&program.interruption, &CInterruption::requested, &call, [&](int number) {
        signalNumber = number;
        call.cancel();
    });
    QObject::connect(&program.messenger, &CMessenger::closed, qApp, &QCoreApplication::quit);
    QMetaObject::invokeMethod(&call, &CDeliveryCall::begin, Qt::QueuedConnection);
    QCoreApplication::exec();
    return exitCode;
}
