#include "tests/faults/faultshim.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct State
{
    int countdown = 0; // 0: not armed
    bool onward = false;
    int error = 0;
    int struck = 0;
    std::string first;
};
thread_local State state;

std::string lastName(std::string path)
{
    if (path.rfind("/proc/self/fd/", 0) == 0) {
        char target[4096];
        const ssize_t length = ::readlink(path.c_str(), target, sizeof target);
        path.assign(target, static_cast<size_t>(std::max<ssize_t>(length, 0)));
    }
    return path.substr(path.rfind('/') + 1);
}

bool strikes(const char *call, const std::string &path, bool isWrite = false)
{
    const int stormEnd = 20;
    if (state.countdown == 0 || (state.error == Fault::Short && !isWrite))
        return false;
    if (state.countdown > 1) {
        --state.countdown;
        return false;
    }
    if (state.struck > 0 && (!state.onward || (state.error == EINTR && state.struck >= stormEnd)))
        return false;
    if (state.struck++ == 0)
        state.first = call + (' ' + lastName(path));
    errno = state.error;
    return true;
}

bool fallsShort(bool isNew)
{
    if (isNew && Fault::isOldSystem)
        errno = EINVAL;
    return isNew && Fault::isOldSystem;
}

std::string ofDescriptor(int fd)
{
    return "/proc/self/fd/" + std::to_string(fd);
}

template <typename Function>
Function *next(Function *, const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

namespace Fault {

bool isOldSystem = false;
std::function<void(const char *path)> beforeCreation;

void arm(int nth, bool onward, int error)
{
    state = {nth, onward, error, 0, {}};
}

int disarm()
{
    state.countdown = 0;
    return state.struck;
}

std::string struck()
{
    return state.first;
}

} // namespace Fault

// NOLINTBEGIN: the signatures are the C library's.
#define SHIM extern "C" __attribute__((visibility("default")))
#define PASS(name, ...) return next(&::name, #name)(__VA_ARGS__)

#define SHIM_CALL(name, parameters, path, ...)                                                               \
    SHIM int name parameters                                                                                 \
    {                                                                                                        \
        if (strikes(#name, path))                                                                            \
            return -1;                                                                                       \
        PASS(name, __VA_ARGS__);                                                                             \
    }
SHIM_CALL(fsync, (int fd), ofDescriptor(fd), fd)
SHIM_CALL(fdatasync, (int fd), ofDescriptor(fd), fd)
SHIM_CALL(fchmod, (int fd, mode_t mode) noexcept, ofDescriptor(fd), fd, mode)
SHIM_CALL(chmod, (const char *path, mode_t mode) noexcept, path, path, mode)
SHIM_CALL(mkdir, (const char *path, mode_t mode) noexcept, path, path, mode)
SHIM_CALL(unlink, (const char *path) noexcept, path, path)
SHIM_CALL(rename, (const char *from, const char *to) noexcept, from, from, to)
SHIM_CALL(linkat, (int a, const char *from, int b, const char *to, int flags) noexcept, to, a, from, b, to,
          flags)

SHIM int renameat2(int a, const char *from, int b, const char *to, unsigned flags) noexcept
{
    if (strikes("renameat2", from) || fallsShort(true))
        return -1;
    PASS(renameat2, a, from, b, to, flags);
}

SHIM int openat(int directory, const char *path, int flags, ...)
{
    va_list list;
    va_start(list, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(list, mode_t) : 0;
    va_end(list);
    if ((flags & O_CREAT) != 0 && Fault::beforeCreation)
        Fault::beforeCreation(path);
    if (strikes("open", path) || fallsShort((flags & O_TMPFILE) == O_TMPFILE))
        return -1;
    PASS(openat, directory, path, flags, mode);
}

SHIM int open(const char *path, int flags, ...)
{
    va_list list;
    va_start(list, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(list, mode_t) : 0;
    va_end(list);
    return ::openat(AT_FDCWD, path, flags, mode);
}

SHIM int open64(const char *path, int flags, ...) __attribute__((alias("open")));
SHIM int openat64(int directory, const char *path, int flags, ...) __attribute__((alias("openat")));

SHIM ssize_t write(int fd, const void *data, size_t size)
{
    const bool fails = strikes("write", ofDescriptor(fd), true);
    if (fails && errno != Fault::Short)
        return -1;
    PASS(write, fd, data, fails ? (size + 1) / 2 : size);
}

SHIM int close(int fd)
{
    const bool fails = strikes("close", ofDescriptor(fd));
    const int reason = errno;
    const int result = next(&::close, "close")(fd); // it is closed in any case
    errno = fails ? reason : errno;
    return fails ? -1 : result;
}
// NOLINTEND
