// A piece of a test in threads, or in a process, of its own: fresh statics, another user, limits, a sudden
// end.
#pragma once

#include <QString>

#include <functional>

#include <sys/types.h>

namespace Forked {

/// Runs @a work in a fork of this process, which has no other threads and not used the runtime yet.
///
/// @param user the user and group it becomes first; needs root
/// @return what @a work returned, 0 to 255; 1000 + the signal that ended it; it has 120 s
int run(const std::function<int()> &work, uid_t user = 0);

/// The same for a text as the result; of a child that was ended it is "signal N".
QString text(const std::function<QString()> &work, uid_t user = 0);

/// @return whether run() can be another user here: this process is root, and @a user may enter the
/// installation
bool canActAs(uid_t user);

/// Runs @a work in threads numbered from 0, and waits for them.
void inThreads(int count, const std::function<void(int number)> &work);

/// Runs @a work in processes numbered from 0, silently, and @a meanwhile in this one.
/// @return how many of them did not return 0; they have 120 s
int failures(
    int count, const std::function<int(int number)> &work, const std::function<void()> &meanwhile = [] {});

/// Inside a fork: puts an empty disk in memory over a directory, for the fork alone.
/// @param options of the mount: size=, nr_inodes=
/// @return false where the system does not let us
bool mountDisk(const QString &directory, const char *options);

} // namespace Forked
