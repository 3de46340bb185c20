#include "host/health/checks.h"

#include "common/global.h"
#include "host/conversation/transporttasks.h"

HealthContext HealthContext::look()
{
    HealthContext result;
    result.level = Global::currentSecrecy();
    result.isLevelFound = Global::checkSecrecy(result.level);
    result.channel = ChannelSettingsFile::read();
    const int pid = Processes::lockHolder(TransportTasks::directory(result.level).absolutePath());
    if (pid > 0)
        result.resident = Processes::describe(pid);
    return result;
}

const std::vector<HealthCheck> &healthChecks()
{
    static const std::vector<HealthCheck> table = {
        {"level", "уровень", Checks::level},
        {"directories", "каталоги", Checks::directories},
        {"openness", "открыто всем", Checks::openness},
        {"settings", "настройки", Checks::settings},
        {"identity", "ключ", Checks::identity},
        {"contacts", "контакты", Checks::contacts},
        {"plugins", "модули", Checks::plugins},
        {"port", "порт", Checks::port},
        {"resident", "listen", Checks::resident},
        {"descriptors", "дескрипторы", Checks::descriptors},
        {"clock", "время", Checks::clock},
        {"locale", "язык", Checks::locale},
        {"disk", "диск", Checks::disk},
        {"growth", "лог и журнал", Checks::growth},
        {"outbox", "исходящие", Checks::outbox},
    };
    return table;
}
