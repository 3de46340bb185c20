// The program `abonent`: from the command line to the command.
#include "common/buildconstants.h"
#include "common/global.h"
#include "common/logger.h"
#include "host/cinterruption.h"
#include "host/commands/commandhelp.h"
#include "host/commands/commandline.h"
#include "host/commands/commands.h"
#include "host/commands/commandtable.h"
#include "host/commands/exitcodes.h"
#include "host/commands/failures.h"
#include "host/console/printing.h"
#include "host/installationrights.h"
#include "host/screen/cscreen.h"
#include "host/text/reasons.h"

#include <QCoreApplication>
#include <QTextCodec>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

/// Standard streams that the caller has closed lead nowhere: their numbers must not go to a file or a socket.
void openStandardStreams()
{
    int descriptor = ::open("/dev/null", O_RDWR);
    while (descriptor >= 0 && descriptor <= STDERR_FILENO)
        descriptor = ::dup(descriptor);
    if (descriptor >= 0)
        ::close(descriptor);
}

/// Makes the table of descriptors large while there is one thread: with several it takes 10 to 20 ms.
void enlargeDescriptorTable()
{
    const int descriptor = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 1023);
    if (descriptor >= 0)
        ::close(descriptor);
}

/// What a command does in its installation.
enum Need
{
    Nothing,
    Looking,
    Writing,
};

Need needOf(const CommandLine &line)
{
    const auto is = [&line](int (*run)(const CommandLine &)) { return line.command->run == run; };
    if (is(runListen) || is(runSend) || is(runPing))
        return Writing;
    return is(runContact) || is(runJournal) || is(runOutbox) || is(runSettings) ? Looking : Nothing;
}

void passOver(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    Q_UNUSED(type)
    Q_UNUSED(context)
    Q_UNUSED(text)
}

int run(const CommandLine &line)
{
    if (!line.mistake.isNull())
        return refuse(line, line.mistake);
    if (line.version) {
        printLine(QStringLiteral("abonent %1").arg(QLatin1String(BuildConstants::version)));
        return ExitDone;
    }
    if (line.help) {
        printLine(commandHelp(line.command).trimmed());
        return ExitDone;
    }

    if (line.has("json"))
        setOutputStyle(OutputStyle::Json);
    else if (line.has("quiet"))
        setOutputStyle(OutputStyle::Quiet);
    const QString lack = needOf(line) == Nothing ? QString() : missingRights();
    if (!lack.isNull()) {
        if (needOf(line) == Writing)
            return fail(ExitTrouble, lack);
        printError(lack);
        qInstallMessageHandler(passOver); // what the runtime would say of it is said
    }
    // A save that was cut off by a crash may have left the channel's settings under another name.
    const QString error = Global::recoverSaved(Global::channelIpSettingsFilePath());
    if (!error.isNull())
        printError(error);
    return line.command->run(line);
}

} // namespace

int main(int argc, char *argv[])
{
    CInterruption::block(); // before any thread
    openStandardStreams();
    enlargeDescriptorTable();
    // Names and texts are UTF-8 also where no locale is set.
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    QCoreApplication application(argc, argv);
    LoggerData::initDebug(nullptr);
    const QStringList arguments = QCoreApplication::arguments().mid(1);
    const int code = arguments.isEmpty() && isOnTerminal() ? runScreen() : run(CommandLine::parse(arguments));

    const int reason = printingError();
    if (code != ExitDone || reason == 0 || reason == EPIPE) // a reader may go when it has enough
        return code;
    printError(QStringLiteral("Не удалось вывести результат. %1").arg(reasonOf(reason)));
    return ExitTrouble;
}
