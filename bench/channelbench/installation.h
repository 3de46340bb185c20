// Every run of the program gets an installation of its own.
//
// The runtime finds settings and data beside the directory of the executable. Programs that run at
// the same time need ports, switches and logs of their own, so the program links its executable
// into a fresh installation and becomes that one. (A symbolic link would not do: the runtime looks
// through it.)
#pragma once

#include <string>

namespace Installation {

/// Becomes the same program in a fresh installation under @a parent, or beside the executable's own
/// installation when @a parent is empty. Returns when the process runs from there. Installations
/// that killed runs have left behind are removed.
///
/// @return false when that is not possible; the reason is on the error stream
bool enter(char **arguments, const std::string &parent);

/// The installation's directory; to be called after enter().
std::string directory();

/// The plug-in that lies beside the program as it was built.
std::string pluginPath();

/// Removes the installation with everything that was logged.
void leave();

} // namespace Installation
