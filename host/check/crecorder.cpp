#include "host/check/crecorder.h"

#include "interfaces/cabstractprotocol.h"

#include <algorithm>
#include <cstring>

#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int lockPatienceMs = 500; // far longer than any record of the log takes

int systemThread()
{
    return int(::syscall(SYS_gettid));
}

} // namespace

CRecorder::CRecorder() : serverThread(systemThread()) {}

void CRecorder::note(What what, int number, const QString &text, qint64 value)
{
    const QMutexLocker locker(&mutex);
    list.push_back({what, number, text, value, systemThread()});
}

void CRecorder::complain(const char *sort, const QString &text)
{
    const QMutexLocker locker(&mutex);
    complaints.emplace_back(sort, text);
}

QString CRecorder::complaint(const char *sort) const
{
    const QMutexLocker locker(&mutex);
    const auto it = std::find_if(complaints.begin(), complaints.end(),
                                 [sort](const auto &each) { return std::strcmp(each.first, sort) == 0; });
    return it == complaints.end() ? QString() : it->second;
}

std::vector<Event> CRecorder::events() const
{
    const QMutexLocker locker(&mutex);
    return list;
}

int CRecorder::count(What what, const QString &text) const
{
    const QMutexLocker locker(&mutex);
    return int(std::count_if(list.begin(), list.end(), [&](const Event &event) {
        return event.what == what && (text.isNull() || event.text == text);
    }));
}

void CRecorder::addPresets(const Presets &seen)
{
    const QMutexLocker locker(&mutex);
    found.push_back(seen);
}

std::vector<Presets> CRecorder::presets() const
{
    const QMutexLocker locker(&mutex);
    return found;
}

void CRecorder::setBehaviour(const Behaviour &behaviour)
{
    const QMutexLocker locker(&mutex);
    current = behaviour;
    connections = 0;
}

Behaviour CRecorder::behaviour() const
{
    const QMutexLocker locker(&mutex);
    return current;
}

void CRecorder::enter(int number, CAbstractProtocol *protocol)
{
    const QMutexLocker locker(&mutex);
    alive.emplace_back(number, protocol);
}

void CRecorder::leave(int number)
{
    const QMutexLocker locker(&mutex);
    alive.erase(std::remove_if(alive.begin(), alive.end(),
                               [number](const auto &each) { return each.first == number; }),
                alive.end());
}

std::vector<int> CRecorder::keptAlive() const
{
    const QMutexLocker locker(&mutex);
    std::vector<int> numbers;
    for (const auto &[number, protocol] : alive) {
        if (__atomic_load_n(&protocol->keepAliveRequested, __ATOMIC_SEQ_CST))
            numbers.push_back(number);
    }
    return numbers;
}

void CRecorder::nudge() const
{
    const QMutexLocker locker(&mutex);
    for (const auto &each : alive)
        QMetaObject::invokeMethod(
            each.second, [] {}, Qt::QueuedConnection); // whatever wakes their loop will do
}

int CRecorder::nextConnection()
{
    const QMutexLocker locker(&mutex);
    return connections++;
}

void CRecorder::clear()
{
    const QMutexLocker locker(&mutex);
    list.clear();
    complaints.clear();
    found.clear();
}

int CRecorder::addConnection(int kindOfChannel, const QString &label, const QString &text)
{
    Q_UNUSED(text)
    tryLogMutex("addConnection()");
    const QMutexLocker locker(&mutex);
    list.push_back({What::AddConnection, ++lastHandle, label, kindOfChannel, systemThread()});
    return lastHandle;
}

void CRecorder::removeConnection(int handle)
{
    tryLogMutex("removeConnection()");
    note(What::RemoveConnection, handle);
}

void CRecorder::setState(int handle, const QString &text)
{
    tryLogMutex("setState()");
    note(What::SetState, handle, text);
}

void CRecorder::addReceived(int handle, int bytes)
{
    tryLogMutex("addReceived()");
    note(What::Received, handle, QString(), bytes);
}

void CRecorder::addSent(int handle, int bytes)
{
    tryLogMutex("addSent()");
    note(What::Sent, handle, QString(), bytes);
}

void CRecorder::addRecord(int recordKind, const QString &source, const QString &text)
{
    Q_UNUSED(text)
    tryLogMutex("addRecord()");
    note(What::Record, recordKind, source);
}

/// A host writes its log in these calls; a channel that holds the log's mutex stops it for good.
void CRecorder::tryLogMutex(const char *who)
{
    QMutex *tried = logMutex;
    if (!tried)
        return;
    if (tried->tryLock(lockPatienceMs))
        tried->unlock();
    else
        complain("lock", QStringLiteral("При вызове %1 занят мьютекс лога").arg(QLatin1String(who)));
}
