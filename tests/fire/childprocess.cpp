#include "tests/fire/childprocess.h"

#include <csignal>
#include <cstdlib>
#include <vector>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

ChildProcess::ChildProcess(Reactor &inReactor, const QString &program, const QStringList &arguments,
                           int descriptors)
    : reactor(inReactor)
{
    QList<QByteArray> texts{program.toLocal8Bit()};
    for (const QString &argument : arguments)
        texts.append(argument.toLocal8Bit());
    std::vector<char *> words;
    for (QByteArray &text : texts)
        words.push_back(text.data());
    words.push_back(nullptr);

    int in[2];
    int out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0)
        return;
    pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        rlimit limit = {};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = rlim_t(std::abs(descriptors));
        if (descriptors > 0)
            limit.rlim_max = limit.rlim_cur;
        ::setenv("TSAN_OPTIONS", "halt_on_error=1", 0); // so that it is noticed also of one we kill
        if (descriptors != 0)
            ::setrlimit(RLIMIT_NOFILE, &limit);
        ::execv(words[0], words.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    input = in[1];
    outputEnd = out[0];
    ::fcntl(outputEnd, F_SETFL, O_NONBLOCK);
    reactor.watch(outputEnd, EPOLLIN, this);
}

ChildProcess::~ChildProcess()
{
    end(SIGKILL);
    reactor.close(outputEnd);
    ::close(input);
}

bool ChildProcess::sees(const QByteArray &text, int ms)
{
    return reactor.run(ms, [&] { return output.contains(text); });
}

QByteArray ChildProcess::ask(const QByteArray &command, int ms)
{
    output.clear();
    const QByteArray line = command + '\n';
    if (::write(input, line.constData(), std::size_t(line.size())) != line.size() || !sees("\n", ms))
        return {};
    return output.trimmed();
}

QMap<QByteArray, double> ChildProcess::stats()
{
    QMap<QByteArray, double> numbers;
    const QList<QByteArray> fields = ask("stats").split(' ');
    for (const QByteArray &field : fields)
        numbers.insert(field.left(field.indexOf('=')), field.mid(field.indexOf('=') + 1).toDouble());
    return numbers;
}

bool ChildProcess::lives() const
{
    siginfo_t state = {};
    return pid > 0 && ::waitid(P_PID, id_t(pid), &state, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           state.si_pid == 0;
}

int ChildProcess::end(int signalNumber)
{
    if (pid < 0)
        return -1;
    if (signalNumber != 0) {
        ::kill(pid, signalNumber);
    } else {
        ::close(input);
        input = -1;
    }
    if (!reactor.run(10000, [this] { return !lives(); }))
        ::kill(pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);
    pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

void ChildProcess::ready(int descriptor)
{
    char bytes[65536];
    const ssize_t count = ::read(descriptor, bytes, sizeof bytes);
    if (count > 0)
        output.append(bytes, int(count));
    else if (count == 0)
        reactor.watch(descriptor, 0, this);
}
