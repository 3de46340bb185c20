#include "tests/support/forked.h"

#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr unsigned limitSeconds = 30;

int outcome(pid_t child)
{
    int status = 0;
    if (::waitpid(child, &status, 0) != child)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

void become(uid_t user)
{
    if (user != 0 && (::setgroups(0, nullptr) != 0 || ::setgid(user) != 0 || ::setuid(user) != 0))
        ::_exit(99);
}

} // namespace

namespace Forked {

int run(const std::function<int()> &work, uid_t user)
{
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(limitSeconds);
        become(user);
        ::_exit(work());
    }
    return outcome(child);
}

QString text(const std::function<QString()> &work, uid_t user)
{
    int ends[2] = {-1, -1};
    if (::pipe(ends) != 0)
        return QStringLiteral("no pipe");
    const auto report = [&] {
        const QByteArray bytes = work().toUtf8();
        return ::write(ends[1], bytes.constData(), static_cast<size_t>(bytes.size())) == bytes.size() ? 0 : 1;
    };
    const int result = run(report, user);
    ::close(ends[1]);

    QByteArray bytes(65536, '\0');
    const ssize_t count = ::read(ends[0], bytes.data(), static_cast<size_t>(bytes.size()));
    ::close(ends[0]);
    if (result != 0)
        return QStringLiteral("signal %1").arg(result - 1000);
    return QString::fromUtf8(bytes.left(static_cast<int>(count)));
}

bool mountDisk(const QString &directory, const char *options)
{
    return ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("none", qPrintable(directory), "tmpfs", 0, options) == 0;
}

} // namespace Forked
