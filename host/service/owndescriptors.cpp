#include "host/service/owndescriptors.h"

#include <algorithm>
#include <cstdlib>
#include <dirent.h>
#include <limits>
#include <memory>
#include <sys/resource.h>
#include <sys/socket.h>

OwnDescriptors OwnDescriptors::look()
{
    OwnDescriptors result;
    rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    result.limit = int(std::min<rlim_t>(limit.rlim_cur, std::numeric_limits<int>::max()));

    const std::unique_ptr<DIR, int (*)(DIR *)> directory(::opendir("/proc/self/fd"), &::closedir);
    while (const dirent *entry = directory ? ::readdir(directory.get()) : nullptr) {
        char *end = nullptr;
        const int descriptor = int(std::strtol(entry->d_name, &end, 10));
        if (end == entry->d_name || descriptor == ::dirfd(directory.get()))
            continue; // "." and "..", and what we look with
        ++result.open;
        int isAccepting = 0;
        socklen_t size = sizeof isAccepting;
        if (!result.isListening &&
            ::getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &isAccepting, &size) == 0)
            result.isListening = isAccepting != 0;
    }
    return result;
}
