#include "tests/fire/childprocess.h"
#include "tests/fire/eventloop.h"

#include <cstdlib>

#include <sys/prctl.h>
#include <sys/resource.h>

ChildProcess::ChildProcess(const QString &program, const QStringList &arguments, int descriptors)
    : limit(descriptors)
{
    connect(this, &QProcess::readyReadStandardOutput, this, [this] { output += readAllStandardOutput(); });
    setProcessChannelMode(ForwardedErrorChannel);
    start(program, arguments);
    waitForStarted();
}

void ChildProcess::setupChildProcess()
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::setenv("TSAN_OPTIONS", "halt_on_error=1", 0); // so that it is noticed also of one we kill
    rlimit descriptors = {};
    ::getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = rlim_t(std::abs(limit));
    if (limit > 0)
        descriptors.rlim_max = descriptors.rlim_cur;
    if (limit != 0)
        ::setrlimit(RLIMIT_NOFILE, &descriptors);
}

bool ChildProcess::sees(const QByteArray &text, int ms)
{
    return runLoop(ms, [&] { return output.contains(text); });
}

QByteArray ChildProcess::ask(const QByteArray &command, int ms)
{
    output.clear();
    write(command + '\n');
    return sees("\n", ms) ? output.trimmed() : QByteArray();
}

QMap<QByteArray, double> ChildProcess::stats()
{
    QMap<QByteArray, double> numbers;
    const QList<QByteArray> fields = ask("stats").split(' ');
    for (const QByteArray &field : fields)
        numbers.insert(field.left(field.indexOf('=')), field.mid(field.indexOf('=') + 1).toDouble());
    return numbers;
}

int ChildProcess::end(int signalNumber)
{
    if (!lives())
        return -1;
    if (signalNumber != 0)
        ::kill(pid_t(processId()), signalNumber);
    else
        closeWriteChannel();
    if (!runLoop(60000, [this] { return !lives(); }))
        kill();
    waitForFinished();
    return exitStatus() == NormalExit ? exitCode() : -exitCode();
}
