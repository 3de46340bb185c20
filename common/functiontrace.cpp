#include "common/functiontrace.h"

#include "common/csettings.h"
#include "common/logwriter.h"
#include "common/terminationguard.h"

#include <QMutexLocker>

QStringList &gStack = *new QStringList;
QMutex &gStackMutex = *new QMutex;

namespace {

constexpr int trailLength = 64;
constexpr int filePrefixLength = 6; // left out of a file's name

// Several threads may come here at once: each finds the same.
bool isTracing()
{
    const int known = gFunctionsDebuging.load(std::memory_order_relaxed);
    if (known >= 0)
        return known > 0;

    const CTerminationGuard guard;
    const bool isOn = CSettings().debugAll();
    gFunctionsDebuging.store(isOn ? 1 : 0, std::memory_order_relaxed);
    const QMutexLocker locker(&gStackMutex);
    gStack.reserve(trailLength);
    return isOn;
}

// The memory of the oldest name serves the newest. No guard is needed: a thread is ended where it waits for
// the system, and here it does not.
template <typename Text>
void addToTrail(const Text &scope)
{
    const QMutexLocker locker(&gStackMutex);
    if (gStack.size() < trailLength)
        gStack.append(QString());
    else
        gStack.move(0, gStack.size() - 1);
    gStack.last() = scope;
}

void write(const QString &source, const QString &text)
{
    debug(source, text, DebugAlways, DebugFlagNone);
}

} // namespace

_CFunctionDebug::_CFunctionDebug(const char *function)
{
    if (isTracing())
        enter(QString::fromLatin1(function));
    else
        addToTrail(QLatin1String(function));
}

_CFunctionDebug::_CFunctionDebug(const char *file, int line, const char *function)
{
    const QString scope = QStringLiteral("%1:%2 %3")
                              .arg(QString::fromLatin1(file).mid(filePrefixLength), QString::number(line),
                                   QString::fromLatin1(function));
    if (isTracing())
        enter(scope);
    else
        addToTrail(scope);
}

_CFunctionDebug::~_CFunctionDebug()
{
    if (gFunctionsDebuging.load(std::memory_order_relaxed) == 0)
        return;
    const CTerminationGuard guard;
    write(QStringLiteral("_CFunctionDebug"), QStringLiteral("%1 }").arg(name));
}

QStringList _CFunctionDebug::stack()
{
    const CTerminationGuard guard;
    const QMutexLocker locker(&gStackMutex);
    return gStack;
}

void _CFunctionDebug::enter(const QString &scope)
{
    const CTerminationGuard guard;
    name = scope;
    write(QStringLiteral("_CFunctionDebug"), QStringLiteral("%1 {").arg(name));
}

_CFunctionMeasure::_CFunctionMeasure(const char *scopeName, bool logAlways)
    : name(QString::fromLatin1(scopeName)), alwaysLog(logAlways)
{
    timer.start();
}

_CFunctionMeasure::~_CFunctionMeasure()
{
    const CTerminationGuard guard;
    const qint64 elapsed = timer.elapsed();
    if (alwaysLog || elapsed > 0)
        write(QStringLiteral("_CFunctionMeasure"),
              QStringLiteral("%1 ms - %2").arg(QString::number(elapsed), name));
}
