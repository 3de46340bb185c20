// A descriptor with an owner, and whole reads and writes on it.
#pragma once

#include <QByteArray>

#include <cerrno>
#include <string_view>

#include <sys/types.h>

/// A descriptor that closes itself.
class CDescriptor
{
public:
    explicit CDescriptor(int descriptor = -1) : fd(descriptor) {}
    ~CDescriptor() { reset(); }
    CDescriptor(CDescriptor &&other) noexcept : fd(other.release()) {}
    CDescriptor &operator=(CDescriptor &&other) noexcept;

    bool isOpen() const { return fd >= 0; }
    int get() const { return fd; }

    /// Gives the descriptor away.
    int release();

    /// Closes; @return whether close() succeeded (true when nothing was open)
    bool reset(int descriptor = -1);

private:
    int fd;
};

/// A descriptor that stays open in a process that is not ours alone: a second close() or a closefrom()
/// elsewhere may give its number to another file.
///
/// What is kept carries a mark that belongs to the open file, not to the number; where the system sets no
/// marks, the number is believed.
class CKeptDescriptor
{
public:
    /// Which of ours it is, so that none is taken for another.
    enum Mark
    {
        Log = 64, // numbers of signals that nobody sends
        Watch = 63
    };

    explicit CKeptDescriptor(Mark theMark) : mark(theMark) {}
    ~CKeptDescriptor() { close(); }
    CKeptDescriptor(const CKeptDescriptor &) = delete;
    CKeptDescriptor &operator=(const CKeptDescriptor &) = delete;

    /// Keeps @a opened in the place of what was kept before.
    void keep(CDescriptor opened);

    /// Whether the number still stands for the file that was kept; one short system call.
    bool isOurs() const;

    int get() const { return descriptor.get(); }

    /// Closes what was kept, unless it is somebody else's by now.
    void close();

private:
    const Mark mark;
    bool isMarked = false;
    CDescriptor descriptor;
};

namespace Io {

/// More than any file that the runtime reads; what is longer was planted.
constexpr qint64 sizeLimit = 16 * 1024 * 1024;

/// Reads all of @a descriptor from where it stands.
/// @return false on an error, errno tells why (EFBIG longer than @a limit)
bool readAll(const CDescriptor &descriptor, QByteArray *data, qint64 limit = sizeLimit);

/// One write(). A limit on the size of files makes it fail with EFBIG, not end the process.
/// @return bytes written, or -1 and errno
ssize_t writeSome(int descriptor, const char *data, size_t size);

/// Writes all of @a data, as many calls as it takes. @return false on an error, errno tells why
bool writeAll(int descriptor, std::string_view data);
bool writeAll(const CDescriptor &descriptor, const QByteArray &data);

/// The data and the rights of a file are on the disk when it returns. @return false on an error, errno tells
/// why; a file system that cannot is none
bool sync(const CDescriptor &descriptor);

/// The names in a directory are on the disk when it returns. @return false on an error, errno tells why
bool syncDirectory(const QByteArray &path);

/// Runs a system call again that a signal has interrupted, but not for ever.
template <typename Call>
auto retried(const Call &call)
{
    auto result = call();
    for (int again = 0; again < 5 && result == -1 && errno == EINTR; ++again)
        result = call();
    return result;
}

} // namespace Io
