// spdlog, with a flush after every record.
#include "bench/peers/loglines.h"
#include "bench/peers/role.h"
#include "bench/support/measure.h"

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

namespace {

int run(const Arguments &arguments)
{
    const auto logger = spdlog::basic_logger_mt(LogLines::source, arguments[0] + "/spdlog.log");
    logger->set_pattern("%H:%M:%S.%e %25n    %v");
    logger->flush_on(spdlog::level::trace);
    LogLines::measure("spdlog, flush each", [&] { logger->info(LogLines::text); });

    const double disabled = Measure::nsPerCall([&] { logger->debug(LogLines::text); });
    Measure::row("d log", "filtered-out call", "spdlog disabled", "ns/call", disabled);
    return 0;
}

const Role role("log spdlog", "DIR", run);

} // namespace
