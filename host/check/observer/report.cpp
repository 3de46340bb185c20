#include "host/check/observer/report.h"

#include <cstdlib>
#include <mutex>
#include <set>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace {

std::mutex brokenMutex;
std::set<std::string> *const brokenRules = new std::set<std::string>; // never destroyed, as below

/// Each line once.
void tell(const QString &line)
{
    static std::mutex mutex;
    static auto *const told = new std::set<QString>; // never destroyed: threads may still tell
    static const char *const name = std::getenv("ABONENT_OBSERVER_REPORT"); // NOLINT: nobody sets it here
    static const int file = name ? ::open(name, O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW) : -1;
    const std::lock_guard<std::mutex> locker(mutex);
    if (file < 0 || !told->insert(line).second)
        return;
    const QByteArray bytes = (line.simplified() + QLatin1Char('\n')).toUtf8();
    if (::write(file, bytes.constData(), size_t(bytes.size())) != bytes.size())
        std::abort(); // a report that misses something would be taken for praise
}

} // namespace

void Report::kept(const char *rule)
{
    tell(QStringLiteral("kept ") + QLatin1String(rule));
}

void Report::broken(const char *rule, const QString &text)
{
    {
        const std::lock_guard<std::mutex> locker(brokenMutex);
        brokenRules->insert(rule);
    }
    tell(QStringLiteral("broken %1 %2").arg(QLatin1String(rule), text));
}

bool Report::isBroken(const char *rule)
{
    const std::lock_guard<std::mutex> locker(brokenMutex);
    return brokenRules->count(rule) > 0;
}

void Report::idle()
{
    tell(QStringLiteral("idle"));
}

void Report::judge(const char *rule, bool isKept, const QString &text)
{
    isKept ? kept(rule) : broken(rule, text);
}
