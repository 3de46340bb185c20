// Any bytes as the list of a tree: what is accepted names places inside it, and is written back the same.
#include "host/conversation/treelist.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray bytes(reinterpret_cast<const char *>(data) + 1, int(size) - 1);
    const auto entries = treeFromBytes(bytes, data[0]);
    if (!entries)
        return 0;
    for (const TreeEntry &entry : *entries) {
        const QByteArray path = '/' + entry.path + '/';
        if (path.contains("//") || path.contains("/../") || path.contains("/./") || path.contains('\0'))
            std::abort();
    }
    if (treeToBytes(*entries) != bytes)
        std::abort();
    return 0;
}
