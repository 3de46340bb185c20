// The measuring loop of the log peers: the same records, threads and counts for each.
#pragma once

#include <functional>
#include <string>

namespace LogLines {

constexpr int records = 24000;
extern const std::string source; // 9 characters
extern const std::string text;   // 72 bytes

/// Writes all records by 1, 4 and 8 threads and prints the rows of area "d log".
void measure(const char *variant, const std::function<void()> &writeOne);

/// One line as the product lays it out, with its time broken down once a second.
std::string line(const std::string &from, const std::string &said);

/// "hh:mm:ss.zzz" of this moment, the seconds broken down only when they change. @a out holds 12.
void timeStamp(char *out);

} // namespace LogLines
