// What this build is called. The one place of these values.
//
// The compiler takes date and time from SOURCE_DATE_EPOCH where it is set, so builds can be repeated.
#pragma once

#include <QtGlobal>

namespace BuildConstants {

constexpr char version[] = "3.0.25.0 release";
constexpr char date[] = __DATE__;
constexpr char time[] = __TIME__;
constexpr char qtVersion[] = QT_VERSION_STR;

} // namespace BuildConstants
