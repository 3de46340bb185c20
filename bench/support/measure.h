// Clocks, processor times and result lines: what every measuring program of this folder shares.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace Measure {

/// Seconds on a clock that only runs forward.
double now();

/// Processor seconds of this process, all threads, user and system.
double cpu();

/// Processor seconds of the calling thread.
double threadCpu();

/// Processor seconds of another process; 0 when it is gone.
double cpuOf(pid_t pid);

/// The value below which the share @a part (0 to 1) of the values lies; 0 for no values.
double quantile(std::vector<double> values, double part);

/// Prints one result: five fields with tabs between them.
void row(const char *area, const std::string &name, const char *variant, const char *metric, double value);

/// Keeps the compiler from dropping what made @a value.
template <typename T>
inline void keep(const T &value)
{
    asm volatile("" : : "g"(&value) : "memory");
}

/// Processor nanoseconds of one call: the median of seven batches, each at least 10 ms long. What else the
/// machine does meanwhile does not count.
template <typename Function>
double nsPerCall(Function function)
{
    constexpr double batchSeconds = 0.01;
    long calls = 1;
    for (;;) {
        const double begin = threadCpu();
        for (long i = 0; i < calls; ++i)
            function();
        if (threadCpu() - begin >= batchSeconds)
            break;
        calls *= 2;
    }
    std::vector<double> batches;
    for (int batch = 0; batch < 7; ++batch) {
        const double begin = threadCpu();
        for (long i = 0; i < calls; ++i)
            function();
        batches.push_back((threadCpu() - begin) * 1e9 / double(calls));
    }
    return quantile(batches, 0.5);
}

} // namespace Measure
