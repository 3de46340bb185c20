#include "common/descriptor.h"

#include <array>
#include <csignal>
#include <ctime>
#include <utility>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

// Holds SIGXFSZ back, which would end the process, and takes away the one that a write has caused.
class FileSizeSignalHold
{
public:
    FileSizeSignalHold()
    {
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGXFSZ);
        sigset_t waiting;
        sigpending(&waiting);
        wasWaiting = sigismember(&waiting, SIGXFSZ) == 1;
        pthread_sigmask(SIG_BLOCK, &blocked, &previous);
    }
    ~FileSizeSignalHold()
    {
        const int reason = errno;
        const timespec now = {};
        while (!wasWaiting && sigtimedwait(&blocked, nullptr, &now) == -1 && errno == EINTR) {
        }
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        errno = reason;
    }

    FileSizeSignalHold(const FileSizeSignalHold &) = delete;
    FileSizeSignalHold &operator=(const FileSizeSignalHold &) = delete;

private:
    sigset_t blocked;
    sigset_t previous;
    bool wasWaiting;
};

} // namespace

CDescriptor &CDescriptor::operator=(CDescriptor &&other) noexcept
{
    reset(other.release());
    return *this;
}

int CDescriptor::release()
{
    return std::exchange(fd, -1);
}

bool CDescriptor::reset(int descriptor)
{
    const int reason = errno; // what a failing function leaves to its caller
    const bool closed = fd < 0 || ::close(fd) == 0 || errno == EINTR; // interrupted it is closed, too
    fd = descriptor;
    if (closed)
        errno = reason;
    return closed;
}

void CKeptDescriptor::keep(CDescriptor opened)
{
    close();
    descriptor = std::move(opened);
    // Of a file that would report by signals; ours never does, so its number is free to serve as the mark.
    isMarked = descriptor.isOpen() && ::fcntl(descriptor.get(), F_SETSIG, int(mark)) == 0;
}

bool CKeptDescriptor::isOurs() const
{
    return descriptor.isOpen() && (!isMarked || ::fcntl(descriptor.get(), F_GETSIG) == mark);
}

void CKeptDescriptor::close()
{
    const int reason = errno;
    if (!isOurs())
        descriptor.release();
    errno = reason;
    descriptor.reset();
}

namespace Io {

bool readAll(const CDescriptor &descriptor, QByteArray *data, qint64 limit)
{
    std::array<char, 16 * 1024> block;
    data->clear();
    for (;;) {
        const ssize_t count = retried([&] { return ::read(descriptor.get(), block.data(), block.size()); });
        if (count <= 0)
            return count == 0;
        data->append(block.data(), static_cast<int>(count));
        if (data->size() > limit) {
            errno = EFBIG;
            return false;
        }
    }
}

ssize_t writeSome(int descriptor, const char *data, size_t size)
{
    struct rlimit limit = {};
    if (::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur == RLIM_INFINITY)
        return ::write(descriptor, data, size);
    const FileSizeSignalHold hold;
    return ::write(descriptor, data, size);
}

bool writeAll(int descriptor, std::string_view data)
{
    while (!data.empty()) {
        const ssize_t count = retried([&] { return writeSome(descriptor, data.data(), data.size()); });
        if (count < 0)
            return false;
        if (count == 0) {
            errno = EIO;
            return false;
        }
        data.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

bool writeAll(const CDescriptor &descriptor, const QByteArray &data)
{
    return writeAll(descriptor.get(), {data.constData(), static_cast<size_t>(data.size())});
}

bool sync(const CDescriptor &descriptor)
{
    // Not fdatasync(), which may leave the rights behind.
    if (retried([&] { return ::fsync(descriptor.get()); }) == 0)
        return true;
    return errno == EINVAL || errno == ENOSYS;
}

bool syncDirectory(const QByteArray &path)
{
    const CDescriptor directory(
        retried([&] { return ::open(path.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    return directory.isOpen() && sync(directory);
}

} // namespace Io
