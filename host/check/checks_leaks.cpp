// Checks that nothing is left of a server: log slots, threads, descriptors, memory.
#include "host/check/cfixture.h"
#include "host/check/checks.h"

#include "common/logger.h"

#include <QDir>
#include <QThread>

#include <algorithm>
#include <mutex>
#include <set>
#include <vector>

#include <malloc.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define MEMORY_IS_SANITIZED 1
#else
#define MEMORY_IS_SANITIZED 0
#endif

extern quintptr Q_CORE_EXPORT qtHookData[]; // Qt's own, for debuggers

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

/// The objects that are alive, as Qt's own hook for debuggers tells them.
class CObjectWatch
{
public:
    CObjectWatch()
    {
        qtHookData[addObjectHook] = reinterpret_cast<quintptr>(&added);
        qtHookData[removeObjectHook] = reinterpret_cast<quintptr>(&removed);
    }

    static qint64 count()
    {
        const std::lock_guard<std::mutex> locker(mutex);
        return qint64(alive.size());
    }

    /// Names of classes, without those that were there before.
    static QString names(const std::set<QObject *> &before)
    {
        const std::lock_guard<std::mutex> locker(mutex);
        QStringList list;
        for (QObject *object : alive) {
            if (before.count(object) == 0)
                list << QLatin1String(object->metaObject()->className());
        }
        list.sort();
        list.removeDuplicates();
        return list.join(QLatin1String(", "));
    }

    static std::set<QObject *> objects()
    {
        const std::lock_guard<std::mutex> locker(mutex);
        return alive;
    }

private:
    // qhooks_p.h of Qt 5: 0 version, 1 size, 2 Qt's version, 3 an object is made, 4 one is destroyed
    static constexpr int addObjectHook = 3;
    static constexpr int removeObjectHook = 4;

    static void added(QObject *object)
    {
        const std::lock_guard<std::mutex> locker(mutex);
        alive.insert(object);
    }
    static void removed(QObject *object)
    {
        const std::lock_guard<std::mutex> locker(mutex);
        alive.erase(object);
    }

    static std::mutex mutex;
    static std::set<QObject *> &alive; // never destroyed: objects of Qt's own go later
};
std::mutex CObjectWatch::mutex;
std::set<QObject *> &CObjectWatch::alive = *new std::set<QObject *>;

constexpr int rounds = 8;

/// Whole lives of servers.
void live(CFixture &fixture, int count)
{
    for (int i = 0; i < count; ++i) {
        Checks::converse(fixture, 2000);
        fixture.stop();
        fixture.close();
        fixture.recorder.clear();
    }
}

/// They must not make a number grow.
void mustNotGrow(CFixture &fixture, qint64 (*measure)(), const QString &what)
{
    constexpr int warmUps = 4;
    live(fixture, warmUps);
    const qint64 before = measure();
    live(fixture, rounds);
    // A thread that has been waited for is listed a moment longer.
    if (!fixture.wait([&] { return measure() <= before; }))
        fail(QStringLiteral("За %1 запусков и остановок осталось лишнего: %2 (%3)")
                 .arg(QString::number(rounds), QString::number(measure() - before), what));
}

} // namespace

void Checks::noSlotLeft(CFixture &fixture)
{
    live(fixture, 1);
    DebugData *const data = LoggerData::debugData();
    const QMutexLocker locker(&data->mutex);
    for (const Tabulation &slot : qAsConst(data->tabulations))
        require(!slot.thread || slot.thread == QThread::currentThread(),
                QStringLiteral("Место отступа %1 в логе не освобождено").arg(slot.tabLevel));
}

void Checks::noObjectLeft(CFixture &fixture)
{
    constexpr int pauseMs = 20;
    const CObjectWatch watch;
    live(fixture, 2);
    const std::set<QObject *> before = CObjectWatch::objects();
    live(fixture, rounds);
    for (int i = 0; i < fixture.arguments.limitMs / pauseMs && CObjectWatch::count() > qint64(before.size());
         ++i)
        fixture.pause(pauseMs);
    if (CObjectWatch::count() > qint64(before.size()))
        fail(QStringLiteral("За %1 запусков и остановок не удалено объектов: %2 (%3)")
                 .arg(QString::number(rounds), QString::number(CObjectWatch::count() - qint64(before.size())),
                      CObjectWatch::names(before)));
}

void Checks::noThreadLeft(CFixture &fixture)
{
    mustNotGrow(fixture, threads, QStringLiteral("потоки"));
}

void Checks::noDescriptorLeft(CFixture &fixture)
{
    mustNotGrow(fixture, descriptors, QStringLiteral("дескрипторы"));
}

/// The allocator keeps some memory for threads, sometimes more, sometimes less; what leaks grows with
/// every life of a server. So the middle of the last third is compared with the middle of the first.
void Checks::noMemoryLeft(CFixture &fixture)
{
    constexpr int third = 7;
    constexpr qint64 allowedBytes = 512; // in each life
    if (MEMORY_IS_SANITIZED)
        throw CheckSkip{QStringLiteral("программа собрана со своим распределителем памяти")};
    live(fixture, 4);
    std::vector<qint64> sizes;
    for (int i = 0; i < 3 * third; ++i) {
        live(fixture, 1);
        sizes.push_back(memory());
    }
    const auto middleFrom = [&sizes](int first) {
        std::nth_element(sizes.begin() + first, sizes.begin() + first + third / 2,
                         sizes.begin() + first + third);
        return sizes[std::size_t(first) + third / 2];
    };
    const qint64 leaked = (middleFrom(2 * third) - middleFrom(0)) / (2 * third);
    require(leaked <= allowedBytes,
            QStringLiteral("С каждым запуском и остановкой памяти занято больше на %1 байт").arg(leaked));
}
