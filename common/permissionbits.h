// The rights that settings name, as the system takes them.
#pragma once

#include <sys/types.h>

/// The mode bits of a number of QFileDevice::Permissions; the owner's and the running user's mean the same.
constexpr mode_t modeOf(int permissions)
{
    const int owner = (permissions >> 12 | permissions >> 8) & 7;
    return static_cast<mode_t>(owner << 6 | (permissions >> 4 & 7) << 3 | (permissions & 7));
}
