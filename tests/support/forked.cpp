#include "tests/support/forked.h"
#include "tests/support/messagecatcher.h"
#include "tests/support/testinstallation.h"

#include <QFile>

#include <thread>
#include <vector>

#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Forked {

int run(const std::function<int()> &work, uid_t user)
{
    const QString result = text([&] { return QString::number(work()); }, user);
    return result.startsWith(QLatin1String("signal ")) ? 1000 + result.mid(7).toInt() : result.toInt();
}

QString text(const std::function<QString()> &work, uid_t user)
{
    int ends[2] = {-1, -1};
    if (::pipe(ends) != 0)
        return QStringLiteral("no pipe");
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(120);
        if (user != 0 && (::setgroups(0, nullptr) != 0 || ::setgid(user) != 0 || ::setuid(user) != 0))
            ::_exit(99);
        const QByteArray bytes = work().toUtf8();
        const auto size = static_cast<size_t>(bytes.size());
        ::_exit(::write(ends[1], bytes.constData(), size) == bytes.size() ? 0 : 1);
    }
    ::close(ends[1]);
    QFile pipe;
    pipe.open(ends[0], QIODevice::ReadOnly, QFileDevice::AutoCloseHandle);
    const QByteArray bytes = pipe.readAll();
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? QString::fromUtf8(bytes) : QStringLiteral("signal %1").arg(WTERMSIG(status));
}

bool canActAs(uid_t user)
{
    const QByteArray place = QFile::encodeName(TestInstallation::path());
    return ::geteuid() == 0 && run([&] { return ::access(place.constData(), X_OK); }, user) == 0;
}

void inThreads(int count, const std::function<void(int number)> &work)
{
    std::vector<std::thread> threads;
    for (int number = 0; number < count; ++number)
        threads.emplace_back(work, number);
    for (std::thread &thread : threads)
        thread.join();
}

int failures(int count, const std::function<int(int)> &work, const std::function<void()> &meanwhile)
{
    std::vector<pid_t> children;
    for (int number = 0; number < count; ++number) {
        children.push_back(::fork());
        if (children.back() == 0) {
            ::alarm(120);
            const MessageCatcher messages; // what is said about the troubles
            ::_exit(work(number));
        }
    }
    meanwhile();
    int failed = 0;
    for (const pid_t child : children) {
        int status = -1;
        failed += ::waitpid(child, &status, 0) != child || status != 0;
    }
    return failed;
}

bool mountDisk(const QString &directory, const char *options)
{
    return ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("none", qPrintable(directory), "tmpfs", 0, options) == 0;
}

} // namespace Forked
