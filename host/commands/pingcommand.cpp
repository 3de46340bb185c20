// `abonent ping`: whether an abonent is there, and that it is the right one.
#include "host/commands/commands.h"

#include "common/global.h"
#include "host/commands/calltarget.h"
#include "host/commands/commandhelp.h"
#include "host/commands/commandline.h"
#include "host/commands/exitcodes.h"
#include "host/commands/failures.h"
#include "host/console/jsonlines.h"
#include "host/cprogram.h"
#include "host/delivery/fingerprintwords.h"
#include "host/text/addresstext.h"
#include "transportIp/ipsettings.h"

#include <QCoreApplication>
#include <QJsonObject>
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
            return fail(
                console, ExitUsage,
                QStringLiteral("Адрес абонента '%1' не известен: abonent contact add").arg(target.abonent));
        }
        target.address = contact->address;
        target.port = contact->port;
    }
    const int code = program.prepare();
    if (code != ExitDone || !program.messenger.keepOnly(CProgram::ipKind))
        return code != ExitDone ? code : int(ExitTrouble);
    if (!line.has("verbose"))
        program.journal.hideRoutine();
    program.open();
    CChannelServer *server = program.messenger.server(CProgram::ipKind);
    bool isAllowed = server->canCheckOnline();

    QObject context; // of the slots below, in this thread
    const auto close = [&program] { program.close(); };
    QObject::connect(server, &CChannelServer::notConnected, &context, close, Qt::QueuedConnection);
    QObject::connect(server, &CChannelServer::disconnected, &context, close, Qt::QueuedConnection);
    int signalNumber = 0;
    QObject::connect(&program.interruption, &CInterruption::requested, &context, [&](int number) {
        signalNumber = number;
        program.close();
    });
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
        return fail(console, ExitBadValue,
                    QStringLiteral("Проверка связи запрещена настройкой canCheckOnline"));
    }
    if (result.isAnswered) {
        console.line(QStringLiteral("Абонент '%1' отвечает: %2 мс, версия %3, протокол %4, ключ %5")
                         .arg(result.name, QString::number(double(result.roundTripUs) / 1000, 'f', 1),
                              result.program, QString::number(HelloFrame::currentVersion),
                              shownFingerprint(result.key)));
        QJsonObject object = jsonEvent(QStringLiteral("answered"));
        object.insert(QStringLiteral("time"), jsonTime(QDateTime::currentDateTime()));
        object.insert(QStringLiteral("abonent"), result.name);
        object.insert(QStringLiteral("ms"), double(result.roundTripUs) / 1000);
        object.insert(QStringLiteral("version"), result.program);
        object.insert(QStringLiteral("protocol"), HelloFrame::currentVersion);
        object.insert(QStringLiteral("key"), QString::fromLatin1(result.key.toHex()));
        console.json(object);
        return ExitDone;
    }
    if (signalNumber != 0)
        return fail(console, ExitInterrupted + signalNumber, QStringLiteral("Проверка прервана"));
    if (!result.trouble.isEmpty())
        return fail(console, result.code, result.trouble);
    const QString reason = program.journal.takeReason(target.abonent);
    const QString text = QStringLiteral("Абонент '%1' не отвечает").arg(target.abonent);
    return fail(
        console, ExitNoAnswer,
        reason.isEmpty()
            ? text
            : QStringLiteral("%1, %2: %3").arg(text, addressText(target.address, target.port), reason));
}
