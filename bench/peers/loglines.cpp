#include "bench/peers/loglines.h"

#include "bench/support/measure.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <thread>

const std::string LogLines::source = "CIpThread";
const std::string LogLines::text =
    std::string("A record of seventy-two bytes, as long as most of those that are written");

void LogLines::measure(const char *variant, const std::function<void()> &writeOne)
{
    for (const int threads : {1, 4, 8}) {
        writeOne(); // whatever the first one prepares
        std::atomic<bool> go{false};
        std::vector<std::thread> writers;
        for (int i = 0; i < threads; ++i) {
            writers.emplace_back([&] {
                while (!go)
                    std::this_thread::yield();
                for (int n = 0; n < records / threads; ++n)
                    writeOne();
            });
        }
        const double cpu = Measure::cpu();
        const double begin = Measure::now();
        go = true;
        for (std::thread &writer : writers)
            writer.join();
        const double seconds = Measure::now() - begin;
        const std::string name = "write, " + std::to_string(threads) + " thread(s)";
        Measure::row("d log", name, variant, "records/s", records / seconds);
        Measure::row("d log", name, variant, "CPU us/record", (Measure::cpu() - cpu) * 1e6 / records);
    }
}

void LogLines::timeStamp(char *out)
{
    thread_local time_t second = -1;
    thread_local char kept[16];
    timespec time = {};
    clock_gettime(CLOCK_REALTIME, &time);
    if (time.tv_sec != second) {
        second = time.tv_sec;
        tm parts = {};
        localtime_r(&second, &parts);
        strftime(kept, sizeof kept, "%H:%M:%S.", &parts);
    }
    std::memcpy(out, kept, 9);
    const long milliseconds = time.tv_nsec / 1000000;
    out[9] = char('0' + milliseconds / 100);
    out[10] = char('0' + milliseconds / 10 % 10);
    out[11] = char('0' + milliseconds % 10);
}

std::string LogLines::line(const std::string &from, const std::string &said)
{
    char stamp[12];
    timeStamp(stamp);
    std::string result(stamp, sizeof stamp);
    result.reserve(64 + said.size());
    result.append(1 + 25 - from.size(), ' ').append(from).append(4, ' ').append(said).append(1, '\n');
    return result;
}
