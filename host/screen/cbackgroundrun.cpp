#include "host/screen/cbackgroundrun.h"
#include "host/text/reasons.h"

#include <QFile>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int longestLine = 4096;

/// Starts the program with what is heard going to @a writing. @return 0 or errno
int spawn(const QStringList &arguments, CBackgroundRun::Heard heard, int writing, pid_t *process)
{
    std::vector<QByteArray> words{"abonent"};
    for (const QString &argument : arguments)
        words.push_back(argument.toUtf8());
    std::vector<char *> pointers(words.size() + 1, nullptr);
    for (std::size_t i = 0; i < words.size(); ++i)
        pointers[i] = words[i].data();

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (heard == CBackgroundRun::Everything)
        posix_spawn_file_actions_adddup2(&actions, writing, STDOUT_FILENO);
    else
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, writing, STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK);
    const int result =
        posix_spawn(process, "/proc/self/exe", &actions, &attributes, pointers.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return result;
}

} // namespace

CBackgroundRun::CBackgroundRun() = default;

CBackgroundRun::~CBackgroundRun()
{
    notifier.reset(); // before what it watches
}

QString CBackgroundRun::start(const QStringList &arguments, Heard heard)
{
    int ends[2];
    int result = ::pipe2(ends, O_CLOEXEC) == 0 ? 0 : errno;
    if (result == 0) {
        output.reset(ends[0]);
        ::fcntl(output.get(), F_SETFL, O_NONBLOCK);
        result = spawn(arguments, heard, ends[1], &process);
        ::close(ends[1]);
    }
    process = result == 0 ? process : -1;
    if (result != 0)
        return QStringLiteral("Не удалось запустить abonent %1: %2")
            .arg(arguments.join(QLatin1Char(' ')), reasonOf(result));
    notifier = std::make_unique<QSocketNotifier>(output.get(), QSocketNotifier::Read);
    connect(notifier.get(), &QSocketNotifier::activated, this, &CBackgroundRun::read);
    return QString();
}

void CBackgroundRun::read()
{
    char bytes[4096];
    const ssize_t count = ::read(output.get(), bytes, sizeof(bytes));
    if (count < 0)
        return;
    rest.append(bytes, int(count));
    for (int end = rest.indexOf('\n'); end >= 0; end = rest.indexOf('\n')) {
        emit said(QString::fromUtf8(rest.left(end)));
        rest.remove(0, end + 1);
    }
    if (rest.size() > longestLine)
        rest.clear();
    if (count > 0)
        return;
    notifier->setEnabled(false);
    int status = 0;
    ::waitpid(process, &status, 0); // it has closed its output: it is ending
    process = -1;
    emit ended(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}
