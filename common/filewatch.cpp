#include "common/filewatch.h"

#include "common/terminationguard.h"

#include <QMutexLocker>

#include <array>
#include <cerrno>
#include <ctime>
#include <utility>

#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr int looksBeforeWatch = 16; // in one tick

qint64 currentTick()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec * qint64(1000000000) + now.tv_nsec;
}

bool isEmpty(int queue)
{
    int bytes = 0;
    return ::ioctl(queue, FIONREAD, &bytes) == 0 && bytes == 0;
}

// Another inode under the same path gets another number; the old one is not asked any more.
bool watchInstead(int queue, const QByteArray &path, quint32 events, int *number)
{
    const int found = ::inotify_add_watch(queue, path.constData(), events);
    const bool isThere = found >= 0 || errno == ENOENT;
    if (*number >= 0 && *number != found)
        ::inotify_rm_watch(queue, *number);
    *number = found;
    return isThere;
}

} // namespace

CFileWatch::CFileWatch(QByteArray thePath, Scope theScope) : path(std::move(thePath)), scope(theScope) {}

bool CFileWatch::isUntouched() const
{
    const int queue = watching.load(std::memory_order_acquire);
    if (queue < 0 || currentTick() != provedTick.load(std::memory_order_relaxed) || !isEmpty(queue))
        return false;
    // After the look at the queue: what others have taken from it they have announced before.
    const quint64 proved = provedState.load(std::memory_order_acquire);
    return proved == state.load(std::memory_order_acquire);
}

quint64 CFileWatch::beginLook()
{
    const int queue = watching.load(std::memory_order_acquire);
    if (queue >= 0) {
        check();
    } else if (const qint64 tick = currentTick(); tick != lookTick.load(std::memory_order_relaxed)) {
        lookTick.store(tick, std::memory_order_relaxed);
        looksInTick.store(0, std::memory_order_relaxed);
    } else if (looksInTick.fetch_add(1, std::memory_order_relaxed) == looksBeforeWatch) {
        start();
    }
    return state.load(std::memory_order_acquire);
}

void CFileWatch::endLook(quint64 look)
{
    if (look % 2 != 0 || look != state.load(std::memory_order_acquire))
        return;
    provedState.store(look, std::memory_order_release);
    provedTick.store(currentTick(), std::memory_order_relaxed);
}

void CFileWatch::start()
{
    const CTerminationGuard guard;
    const QMutexLocker locker(&mutex);
    if (!descriptor.isOurs()) {
        stop();
        descriptor.keep(CDescriptor(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)));
    }
    if (!descriptor.isOurs() || !watch())
        return;
    state.fetch_add(2); // what was seen before does not count
    watching.store(descriptor.get(), std::memory_order_release);
}

// The directory, and the file there or wherever a link leads, under whatever name it is written to.
bool CFileWatch::watch()
{
    constexpr quint32 ofNames = IN_ATTRIB | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
    constexpr quint32 ofContents = IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
    const QByteArray directory = path.left(path.lastIndexOf('/') + 1);
    return watchInstead(descriptor.get(), directory, ofNames, &directoryWatch) && directoryWatch >= 0 &&
           (scope == Name || watchInstead(descriptor.get(), path, ofContents, &fileWatch));
}

// Takes the events that have come, if the queue is still ours: its number may stand for another file by now.
void CFileWatch::check()
{
    const CTerminationGuard guard;
    if (!mutex.tryLock())
        return; // somebody is at it
    if (!descriptor.isOurs())
        stop();
    else if (!isEmpty(descriptor.get()))
        takeEvents();
    mutex.unlock();
}

// As many as one call gives; what is left keeps the queue from being empty.
void CFileWatch::takeEvents()
{
    state.fetch_add(1);
    std::array<char, 4096> events;
    static_cast<void>(::read(descriptor.get(), events.data(), events.size()));
    if (!watch()) // names may stand for others now
        watching.store(-1, std::memory_order_release);
    state.fetch_add(1);
}

// Another queue may be made later.
void CFileWatch::stop()
{
    watching.store(-1, std::memory_order_release);
    descriptor.close();
    directoryWatch = -1;
    fileWatch = -1;
}
