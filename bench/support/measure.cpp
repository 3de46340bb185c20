#include "bench/support/measure.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace {

double secondsOf(clockid_t clock)
{
    timespec time = {};
    clock_gettime(clock, &time);
    return double(time.tv_sec) + double(time.tv_nsec) * 1e-9;
}

} // namespace

double Measure::now()
{
    return secondsOf(CLOCK_MONOTONIC);
}

double Measure::cpu()
{
    return secondsOf(CLOCK_PROCESS_CPUTIME_ID);
}

double Measure::threadCpu()
{
    return secondsOf(CLOCK_THREAD_CPUTIME_ID);
}

double Measure::cpuOf(pid_t pid)
{
    clockid_t clock = {};
    return clock_getcpuclockid(pid, &clock) == 0 ? secondsOf(clock) : 0;
}

double Measure::quantile(std::vector<double> values, double part)
{
    if (values.empty())
        return 0;
    const auto place = std::min(values.size() - 1, size_t(double(values.size()) * part));
    std::nth_element(values.begin(), values.begin() + long(place), values.end());
    return values[place];
}

void Measure::row(const char *area, const std::string &name, const char *variant, const char *metric,
                  double value)
{
    std::printf("%s\t%s\t%s\t%s\t%.6g\n", area, name.c_str(), variant, metric, value);
    std::fflush(stdout);
}
