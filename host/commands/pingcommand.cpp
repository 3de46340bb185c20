// `abonent ping`: whether an abonent is there, and that it is the right one.
#include "host/commands/commands.h"

#include "common/global.h"
#include "host/commands/calltarget.h"
#include "host/commands/commandhelp.h"
#include "host/commands/commandline.h"
#include "host/commands/exitcodes.h"
#include "host/cprogram.h"
#include "host/delivery/fingerprintwords.h"
#include "transportIp/ipsettings.h"

#include <QCoreApplication>
#include <QTimer>

namespace {

constexpr int patienceMs = 30000;

} // namespace

int runPing(const CommandLine &line)
{
    CallTarget target;
    target.abonent = line.operands[0];
    if (line.operands.size() > 1 && !target.setAddress(line.operands[1]))
        return refuse(line, QStringLiteral("Адрес абонента задан неверно: %1").arg(line.operands[1]));

    CConsole console;
    PingResult result;
    CProgram program(line, CProgram::Asker, console, &result);
    if (target.address.isEmpty()) {
        const std::optional<CContact> contact = program.contacts.find(target.abonent);
        if (!contact || contact->address.isEmpty()) {
            console.error(
                QStringLiteral("Адрес абонента '%1' не известен: abonent contact add").arg(target.abonent));
            return ExitUsage;
        }
        target.address = contact->address;
        target.port = contact->port;
    }
    const int code = program.prepare();
    if (code != ExitDone || !program.messenger.keepOnly(CProgram::ipKind))
        return code != ExitDone ? code : int(ExitTrouble);
    if (!line.has("verbose"))
        program.journal.hide(program.messenger.plugin(CProgram::ipKind)->name());
    program.open();
    CChannelServer *server = program.messenger.server(CProgram::ipKind);
    bool isAllowed = server->canCheckOnline();

    QObject context; // of the slots below, in this thread
    const auto close = [&program] { program.close(); };
    QObject::connect(server, &CChannelServer::notConnected, &context, close, Qt::QueuedConnection);
    QObject::connect(server, &CChannelServer::disconnected, &context, close, Qt::QueuedConnection);
    QObject::connect(&program.interruption, &CInterruption::requested, &context, close);
    QObject::connect(&program.messenger, &CMessenger::closed, qApp, &QCoreApplication::quit);
    QTimer::singleShot(patienceMs, &context, close);
    AbonentIpSettings record;
    record.address = target.address;
    record.port = target.port;
    if (isAllowed)
        server->connectToAbonent(target.abonent, record.toByteArray());
    else
        QTimer::singleShot(0, &context, close);
    QCoreApplication::exec();

    if (!isAllowed) {
        console.error(QStringLiteral("Проверка связи запрещена настройкой canCheckOnline"));
        return ExitBadValue;
    }
    if (result.isAnswered) {
        console.line(QStringLiteral("Абонент '%1' отвечает: %2 мс, версия %3, протокол %4, ключ %5")
                         .arg(result.name, QString::number(double(result.roundTripUs) / 1000, 'f', 1),
                              result.program, QString::number(HelloFrame::currentVersion),
                              shownFingerprint(result.key)));
        return ExitDone;
    }
    console.error(result.trouble.isEmpty() ? QStringLiteral("Абонент '%1' не отвечает").arg(target.abonent)
                                           : result.trouble);
    return result.name.isEmpty() && result.trouble.isEmpty() ? ExitNoAnswer : ExitSomebodyElse;
}
