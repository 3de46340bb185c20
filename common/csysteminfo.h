// The lines at the head of every new log: build, machine and user.
//
// Every line starts with a label 22 characters wide. A line that cannot be found out is empty; the
// reason goes to the Qt message stream at debug severity. [any thread]; no state, no lock.
#pragma once

#include "common/exports.h"

#include <QString>

class RUNTIME_EXPORT CSystemInfo
{
public:
    /// All lines under the line of the version, and an empty line.
    static QString summaryInfo();

    static QString appPathInfo();
    static QString OSInfo();
    static QString envInfo();
    static QString userGroupsInfo(); // two lines
    static QString byteOrder();
    static QString CPUInfo();
    static QString RAMInfo();
    static QString HDDInfo();
    static QString uptimeInfo();
    static QString timezoneInfo();
};
