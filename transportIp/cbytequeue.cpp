#include "transportIp/cbytequeue.h"

#include <algorithm>

namespace {
constexpr int blockBytes = 65536;
}

void CByteQueue::append(const char *data, qint64 size)
{
    total += size;
    while (size > 0) {
        if (blocks.isEmpty() || blocks.last().size() == blockBytes) {
            blocks.append(QByteArray());
            blocks.last().reserve(blockBytes);
        }
        const int part = int(std::min<qint64>(size, blockBytes - blocks.last().size()));
        blocks.last().append(data, part);
        data += part;
        size -= part;
    }
}

const char *CByteQueue::front() const
{
    return blocks.first().constData() + taken;
}

int CByteQueue::frontSize() const
{
    return blocks.isEmpty() ? 0 : blocks.first().size() - taken;
}

void CByteQueue::remove(int size)
{
    total -= size;
    taken += size;
    if (taken < blocks.first().size())
        return;
    blocks.removeFirst();
    taken = 0;
}

void CByteQueue::clear()
{
    blocks.clear();
    taken = 0;
    total = 0;
}
