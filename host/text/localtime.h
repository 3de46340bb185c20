// The time as people in front of this machine read it.
#pragma once

#include <QString>

/// The local time by a format of strftime(3), such as "%H:%M:%S". [any thread]
QString localTime(const char *format);
