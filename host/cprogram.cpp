#include "host/cprogram.h"

#include "common/global.h"
#include "common/logger.h"
#include "host/commands/commandline.h"
#include "host/commands/exitcodes.h"

#include <QSysInfo>

#include <atomic>
#include <sys/resource.h>

namespace {

// Where Qt's messages go. Set while a program lives.
std::atomic<CConsole *> gConsole{nullptr};
std::atomic<bool> gIsVerbose{false};

/// The runtime tells its own troubles through Qt's message stream, and echoes the log there.
void showQtMessage(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    Q_UNUSED(context)
    CConsole *console = gConsole;
    if (console && (type != QtDebugMsg || gIsVerbose))
        console->error(text);
}

QString nameOf(const CommandLine &line)
{
    const QString user = Global::currentSystemUserName();
    const QString name = line.value("name");
    return !name.isEmpty() ? name : !user.isEmpty() ? user : QSysInfo::machineHostName();
}

/// As many descriptors as the system allows: each connection needs two.
int raiseDescriptorLimit()
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return int(qMin<rlim_t>(limit.rlim_cur, 1024 * 1024));
}

/// A quarter of the descriptors, at two each, may go to callers who have not named themselves.
int mostUnnamed()
{
    static const int most = qBound(32, raiseDescriptorLimit() / 8, 1024);
    return most;
}

} // namespace

CProgram::CProgram(const CommandLine &line, CConsoleMonitor::Style monitorStyle, CDelivery *delivery)
    : monitor(console, monitorStyle), journal(console), store(Global::currentSecrecy()),
      unnamed(mostUnnamed(), mostUnnamed() / 2), ownName(nameOf(line)),
      messenger(console, monitor,
                {ownName, &store, &journal, [this](const QString &label) { return monitor.originOf(label); },
                 &unnamed, delivery})
{
    gIsVerbose = line.has("verbose");
    gConsole = &console;
    qInstallMessageHandler(showQtMessage);
}

CProgram::~CProgram()
{
    gConsole = nullptr;
    qInstallMessageHandler(nullptr);
}

int CProgram::prepare()
{
    if (Global::filterName(ownName).isEmpty()) {
        console.error(QStringLiteral("В имени абонента '%1' нет ни букв, ни цифр: задайте другое, --name")
                          .arg(ownName));
        return ExitUsage;
    }
    const QString error = store.prepare();
    if (!error.isNull()) {
        debug(QStringLiteral("CProgram"), error, DebugAlways, DebugFlagFileOnly);
        console.error(error);
        return ExitTrouble;
    }
    if (!messenger.load())
        return ExitTrouble;
    console.line(
        QStringLiteral("Абонент '%1', установка %2").arg(ownName, Global::installDir().absolutePath()));
    return ExitDone;
}
