// log4cxx, with its file appender as it comes: a flush after every record.
#include "bench/peers/loglines.h"
#include "bench/peers/role.h"

#include <log4cxx/fileappender.h>
#include <log4cxx/logger.h>
#include <log4cxx/patternlayout.h>

#include <memory>

namespace {

int run(const Arguments &arguments)
{
    const auto layout = std::make_shared<log4cxx::PatternLayout>("%d{HH:mm:ss.SSS} %25c    %m%n");
    const auto appender =
        std::make_shared<log4cxx::FileAppender>(layout, arguments[0] + "/log4cxx.log", true);
    const log4cxx::LoggerPtr logger = log4cxx::Logger::getLogger(LogLines::source);
    logger->addAppender(appender);
    LogLines::measure("log4cxx", [&] { LOG4CXX_INFO(logger, LogLines::text); });
    return 0;
}

const Role role("log log4cxx", "DIR", run);

} // namespace
