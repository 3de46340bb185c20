// What a log record costs, and a call that is not to be written.
#include "bench/channelbench/logload.h"
#include "bench/channelbench/rows.h"

#include "bench/support/measure.h"
#include "common/logwriter.h"

namespace {

constexpr int records = 24000;

} // namespace

void Rows::log()
{
    for (const int threads : {1, 4, 8}) {
        const LogCost cost = writeRecords(records, threads);
        const std::string name = "write, " + std::to_string(threads) + " thread(s)";
        Measure::row("d log", name, variant, "records/s", cost.recordsPerSecond);
        Measure::row("d log", name, variant, "CPU us/record", cost.cpuUsPerRecord);
    }
    const QString source = QStringLiteral("CIpThread");
    const QString text = QStringLiteral("A record that nobody wants to read");
    const double call = Measure::nsPerCall([&] { debug(source, text, DebugIpcData, DebugFlagFileOnly); });
    Measure::row("d log", "filtered-out call", variant, "ns/call", call);
}
