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

    const bool isOn = CSettings().debugAll();
    gFunctionsDebuging.store(isOn ? 1 : 0, std::memory_order_relaxed);
    const QMutexLocker locker(&gStackMutex);
    gStack.reserve(trailLength + 1); // an entry is added before the oldest goes
    return isOn;
}

void addToTrail(const QString &scope)
{
    const QMutexLocker locker(&gStackMutex);
    gStack.append(scope);
    if (gStack.size() > trailLength)
        gStack.removeFirst();
}

void write(const QString &source, const QString &text)
{
    debug(source, text, DebugAlways, DebugFlagNone);
}

} // namespace

_CFunctionDebug::_CFunctionDebug(const char *function)
{
    const CTerminationGuard guard;
    enter(QString::fromLatin1(function));
}

_CFunctionDebug::_CFunctionDebug(const char *file, int line, const char *function)
{
    const CTerminationGuard guard;
    enter(QStringLiteral("%1:%2 %3")
              .arg(QString::fromLatin1(file).mid(filePrefixLength), QString::number(line),
                   QString::fromLatin1(function)));
}

_CFunctionDebug::~_CFunctionDebug()
{
    const CTerminationGuard guard;
    if (gFunctionsDebuging.load(std::memory_order_relaxed) != 0)
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
    if (!isTracing()) {
        addToTrail(scope);
        return;
    }
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
