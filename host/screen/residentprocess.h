// The `abonent listen` of this installation, found by the lock that it holds.
#pragma once

#include <sys/types.h>

/// Whether there is one. [any thread]
bool isResidentThere(int level);

/// @return its process, or 0 when there is none or the system does not tell. [any thread]
pid_t residentProcess(int level);
