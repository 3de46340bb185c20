#include "host/cinterruption.h"

#include "host/commands/exitcodes.h"

#include <QSocketNotifier>

#include <csignal>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

sigset_t ourSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&set, number);
    return set;
}

} // namespace

void CInterruption::block()
{
    const sigset_t set = ourSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

void CInterruption::release()
{
    const sigset_t set = ourSignals();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

CInterruption::CInterruption()
{
    const sigset_t set = ourSignals();
    descriptor = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    auto *notifier = new QSocketNotifier(descriptor, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &CInterruption::readSignal);
}

CInterruption::~CInterruption()
{
    ::close(descriptor);
}

void CInterruption::readSignal()
{
    signalfd_siginfo info{};
    if (::read(descriptor, &info, sizeof(info)) != sizeof(info))
        return;
    const int number = int(info.ssi_signo);
    if (isRequested)
        ::_exit(ExitInterrupted + number);
    isRequested = true;
    emit requested(number);
}
