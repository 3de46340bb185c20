#include "host/text/localtime.h"

#include <ctime>

QString localTime(const char *format)
{
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    localtime_r(&now, &parts);
    char text[64];
    const std::size_t size = std::strftime(text, sizeof(text), format, &parts);
    return QString::fromLatin1(text, int(size));
}
