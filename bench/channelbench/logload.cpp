#include "bench/channelbench/logload.h"

#include "bench/support/measure.h"
#include "common/logwriter.h"

#include <QString>

#include <atomic>
#include <thread>

LogCost writeRecords(int records, int threads)
{
    const QString source = QStringLiteral("CIpThread");
    const QString text =
        QStringLiteral("A record of seventy-two bytes, as long as most of those that are written");
    debug(source, text, DebugAlways, DebugFlagFileOnly); // makes the file when there is none

    std::atomic<bool> go{false};
    std::vector<std::thread> writers;
    for (int i = 0; i < threads; ++i) {
        writers.emplace_back([&] {
            while (!go)
                std::this_thread::yield();
            for (int n = 0; n < records / threads; ++n)
                debug(source, text, DebugAlways, DebugFlagFileOnly);
        });
    }
    const double cpu = Measure::cpu();
    const double begin = Measure::now();
    go = true;
    for (std::thread &writer : writers)
        writer.join();
    return {records / (Measure::now() - begin), (Measure::cpu() - cpu) * 1e6 / records};
}
