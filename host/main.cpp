// The program `abonent`: from the command line to the command.
#include "common/buildconstants.h"
#include "common/global.h"
#include "common/logger.h"
#include "host/cinterruption.h"
#include "host/commands/commandhelp.h"
#include "host/commands/commandline.h"
#include "host/commands/commands.h"
#include "host/commands/exitcodes.h"
#include "host/console/untrustedtext.h"

#include <QCoreApplication>
#include <QTextCodec>

#include <cstdio>

namespace {

struct Command
{
    const char *name;
    int (*run)(const CommandLine &line);
};

constexpr Command commands[] = {
    {"listen", runListen},
    {"send", runSend},
    {"settings", runSettings},
    {"check", runCheck},
};

int answer(std::FILE *stream, int code, const QString &text)
{
    std::fputs(text.toUtf8().constData(), stream);
    return code;
}

int run(const CommandLine &line)
{
    if (!line.mistake.isNull()) {
        return answer(
            stderr, ExitUsage,
            QStringLiteral("%1\nПодробнее: abonent %2 --help\n").arg(printable(line.mistake), line.command));
    }
    if (line.version)
        return answer(stdout, ExitDone,
                      QStringLiteral("abonent %1\n").arg(QLatin1String(BuildConstants::version)));
    if (line.help)
        return answer(stdout, ExitDone, commandHelp(line.command));

    // A save that was cut off by a crash may have left the channel's settings under another name.
    const QString error = Global::recoverSaved(Global::channelIpSettingsFilePath());
    if (!error.isNull())
        answer(stderr, 0, error + QLatin1Char('\n'));
    for (const Command &command : commands) {
        if (line.command == QLatin1String(command.name))
            return command.run(line);
    }
    return ExitUsage;
}

} // namespace

int main(int argc, char *argv[])
{
    CInterruption::block(); // before any thread
    // Names and texts are UTF-8 also where no locale is set.
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    QCoreApplication application(argc, argv);
    LoggerData::initDebug(nullptr);
    return run(parseCommandLine(QCoreApplication::arguments().mid(1)));
}
