// Makes system calls fail on request.
//
// The shim stands before the C library: linked into a test program it takes the calls of our code and
// of Qt alike. Only calls of the thread that has armed it count, and only while it is armed.
#pragma once

#include <cerrno>
#include <functional>
#include <string>

namespace Fault {

/// Not an errno: only writes are struck, and they take half of what they were given.
constexpr int Short = -1;

/// Strikes the @a nth call that makes, opens, writes, syncs, closes, renames or removes a file or sets its
/// rights; @a onward also all later ones (of interruptions 20: signals end, too).
void arm(int nth, bool onward, int error);

/// @return how many calls were struck
int disarm();

/// The call struck first, and the last name of its file: "rename F.new".
std::string struck();

/// A file system without renameat2() and files without a name, on any thread, armed or not.
extern bool isOldSystem;

/// Called with the path before every open that makes a file, on any thread, armed or not.
extern std::function<void(const char *path)> beforeCreation;

} // namespace Fault
