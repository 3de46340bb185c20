// Checks that nothing is left of a server: log slots, threads, descriptors, memory.
#include "host/check/cfixture.h"
#include "host/check/checks.h"

#include "common/logger.h"

#include <QDir>
#include <QThread>

#include <malloc.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define MEMORY_IS_SANITIZED 1
#else
#define MEMORY_IS_SANITIZED 0
#endif

namespace {

qint64 entriesOf(const char *directory)
{
    return QDir(QString::fromLatin1(directory))
        .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
        .size();
}

qint64 threads()
{
    return entriesOf("/proc/self/task");
}

qint64 descriptors()
{
    return entriesOf("/proc/self/fd");
}

qint64 memory()
{
    const struct mallinfo2 info = ::mallinfo2();
    return qint64(info.uordblks) + qint64(info.hblkhd);
}

/// Whole lives of servers must not make a number grow by more than is allowed.
QString mustNotGrow(CFixture &fixture, qint64 (*measure)(), qint64 allowed, const QString &what)
{
    constexpr int warmUps = 4;
    constexpr int rounds = 8;
    constexpr int patienceMs = 1000; // a thread that has been waited for is listed a moment longer
    qint64 before = 0;
    for (int i = 0; i < warmUps + rounds; ++i) {
        if (i == warmUps)
            before = measure();
        const QString error = Checks::wholeConversation(fixture, 2000);
        if (!error.isNull())
            return error;
        fixture.recorder.clear();
    }
    if (fixture.wait([&] { return measure() <= before + allowed; }, patienceMs))
        return QString();
    return QStringLiteral("За %1 запусков и остановок осталось лишнего: %2 (%3)")
        .arg(QString::number(rounds), QString::number(measure() - before), what);
}

} // namespace

QString Checks::noSlotLeft(CFixture &fixture)
{
    const QString error = wholeConversation(fixture, 2000);
    if (!error.isNull())
        return error;
    DebugData *const data = LoggerData::debugData();
    const QMutexLocker locker(&data->mutex);
    for (const Tabulation &slot : qAsConst(data->tabulations)) {
        if (slot.thread && slot.thread != QThread::currentThread())
            return QStringLiteral("Место отступа %1 в логе не освобождено").arg(slot.tabLevel);
    }
    return QString();
}

QString Checks::noThreadLeft(CFixture &fixture)
{
    return mustNotGrow(fixture, threads, 0, QStringLiteral("потоки"));
}

QString Checks::noDescriptorLeft(CFixture &fixture)
{
    return mustNotGrow(fixture, descriptors, 0, QStringLiteral("дескрипторы"));
}

QString Checks::noMemoryLeft(CFixture &fixture)
{
    constexpr qint64 allowedBytes = 32 * 1024; // what the allocator keeps for threads varies
    if (MEMORY_IS_SANITIZED) {
        fixture.skipReason = QStringLiteral("программа собрана со своим распределителем памяти");
        return QString();
    }
    return mustNotGrow(fixture, memory, allowedBytes, QStringLiteral("байты"));
}
