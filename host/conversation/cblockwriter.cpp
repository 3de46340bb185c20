#include "host/conversation/cblockwriter.h"

#include "common/descriptor.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include <fcntl.h>

namespace {

constexpr qint64 ringBytes = 2 * 1024 * 1024;
constexpr qint64 blockBytes = 256 * 1024; // whole blocks of the file cost the system half as much
constexpr qint64 flushEveryBytes = 8 * 1024 * 1024;
constexpr std::chrono::milliseconds patience(10); // how long part of a block waits for the rest

} // namespace

CBlockWriter::CBlockWriter(int descriptor, qint64 position, CSha256 &hash)
    : begin(position), ring(new char[ringBytes]), flushed(position),
      thread([this, descriptor, &hash] { run(descriptor, hash); })
{}

int CBlockWriter::add(std::string_view bytes)
{
    std::unique_lock lock(mutex);
    while (!bytes.empty() && error == 0) {
        changed.wait(lock, [this] { return added - done < ringBytes || error != 0; });
        const qint64 at = (begin + added) % ringBytes;
        const qint64 room = std::min(ringBytes - (added - done), ringBytes - at);
        const std::size_t count = std::min(bytes.size(), std::size_t(room));
        lock.unlock();
        std::memcpy(ring.get() + at, bytes.data(), count);
        bytes.remove_prefix(count);
        lock.lock();
        // It sleeps until a block is whole, or with nothing to do at all.
        const bool isAwaited =
            added == done || (begin + added) / blockBytes != (begin + added + qint64(count)) / blockBytes;
        added += qint64(count);
        if (isAwaited)
            changed.notify_all();
    }
    return error;
}

int CBlockWriter::finish()
{
    {
        const std::lock_guard lock(mutex);
        isEnding = true;
        changed.notify_all();
    }
    if (thread.joinable())
        thread.join();
    return error;
}

void CBlockWriter::run(int descriptor, CSha256 &hash)
{
    std::unique_lock lock(mutex);
    for (;;) {
        const qint64 blockEnd = ((begin + done) / blockBytes + 1) * blockBytes - begin;
        changed.wait(lock, [this] { return added > done || isEnding; });
        changed.wait_for(lock, patience, [&] { return added >= blockEnd || isEnding; });
        const qint64 count = std::min(added, blockEnd) - done;
        if (count == 0)
            return;
        const qint64 at = begin + done;
        lock.unlock();
        const std::string_view bytes(ring.get() + at % ringBytes, std::size_t(count));
        hash.add(bytes);
        const int trouble = write(descriptor, bytes, at);
        lock.lock();
        done += count;
        error = trouble;
        changed.notify_all();
        if (error != 0)
            return;
    }
}

/// @return 0 or errno
int CBlockWriter::write(int descriptor, std::string_view bytes, qint64 at)
{
    if (!Io::writeAll(descriptor, bytes))
        return errno;
    const qint64 end = at + qint64(bytes.size());
    // The disk begins now, so that the wait in the end is short however long the file.
    if (end - flushed >= flushEveryBytes) {
        ::sync_file_range(descriptor, flushed, end - flushed, SYNC_FILE_RANGE_WRITE);
        flushed = end;
    }
    return 0;
}
