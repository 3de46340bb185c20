// Hashes and writes a long stretch of a file in a thread of its own, beside the thread that receives it.
//
//   add() --> ring of 2 MiB --> SHA-256 --> write(), in blocks that lie well in the file
//
// What has been added is in the file within some milliseconds, also when nothing more comes: what the process
// loses when it is killed has to be sent again.
#pragma once

#include "host/conversation/csha256.h"

#include <QtGlobal>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>

/// One thread at a time, beside its own.
class CBlockWriter
{
public:
    /// @param descriptor stays open, and @a hash is left alone by others, until finish()
    /// @param position at which the descriptor stands in the file
    CBlockWriter(int descriptor, qint64 position, CSha256 &hash);
    ~CBlockWriter() { finish(); }

    CBlockWriter(const CBlockWriter &) = delete;
    CBlockWriter &operator=(const CBlockWriter &) = delete;

    /// Takes bytes that follow; waits while the ring is full.
    /// @return 0, or the errno of a write that has failed: nothing more gets into the file
    int add(std::string_view bytes);

    /// Waits until all is in the file. Nothing may be added afterwards.
    /// @return 0 or errno, as add()
    int finish();

private:
    void run(int descriptor, CSha256 &hash);
    int write(int descriptor, std::string_view bytes, qint64 at);

    const qint64 begin; // position in the file
    const std::unique_ptr<char[]> ring;

    std::mutex mutex; // guards the following
    std::condition_variable changed;
    qint64 added = 0; // bytes
    qint64 done = 0;
    bool isEnding = false;
    int error = 0;

    qint64 flushed = 0; // the writing thread's: how far the disk has been told to begin
    std::thread thread; // the last: it uses the others
};
