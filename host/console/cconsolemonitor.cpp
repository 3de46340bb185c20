#include "host/console/cconsolemonitor.h"

#include "common/global.h"
#include "host/console/cconsole.h"
#include "host/text/textwidth.h"
#include "host/text/untrustedtext.h"

#include <QTimer>

namespace {

constexpr int refreshMs = 400;

constexpr int labelCells = 12;
constexpr int amountCells = 13;
constexpr int cellsWithAmounts = 100;
constexpr int cellsWithSpeed = 50;

} // namespace

CConsoleMonitor::CConsoleMonitor(CConsole &shownOn, Style chosenStyle) : console(shownOn), style(chosenStyle)
{
    sinceRefresh.start();
}

int CConsoleMonitor::addConnection(int kind, const QString &label, const QString &text)
{
    Q_UNUSED(kind)
    int handle = 0;
    {
        const std::lock_guard lock(mutex);
        handle = ++lastHandle;
        Entry &entry = entries[handle];
        entry.label = label;
        entry.origin = entry.state = text;
    }
    scheduleRefresh();
    return handle;
}

void CConsoleMonitor::removeConnection(int handle)
{
    {
        const std::lock_guard lock(mutex);
        entries.erase(handle);
    }
    scheduleRefresh();
}

void CConsoleMonitor::setState(int handle, const QString &text)
{
    {
        const std::lock_guard lock(mutex);
        const auto found = entries.find(handle);
        if (found == entries.end() || found->second.state == text)
            return;
        found->second.state = text;
    }
    scheduleRefresh();
}

void CConsoleMonitor::addReceived(int handle, int bytes)
{
    addBytes(handle, bytes, 0);
}

void CConsoleMonitor::addSent(int handle, int bytes)
{
    addBytes(handle, 0, bytes);
}

QString CConsoleMonitor::originOf(const QString &label) const
{
    const std::lock_guard lock(mutex);
    // From the newest: a label is used again, and an old entry may be about to go.
    for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
        if (entry->second.label == label)
            return entry->second.origin;
    }
    return QString();
}

void CConsoleMonitor::addBytes(int handle, qint64 received, qint64 sent)
{
    {
        const std::lock_guard lock(mutex);
        const auto found = entries.find(handle);
        if (found == entries.end())
            return;
        found->second.received += received;
        found->second.sent += sent;
    }
    scheduleRefresh();
}

/// Has the table drawn again soon, once for all changes until then. [any thread]
void CConsoleMonitor::scheduleRefresh()
{
    if (style != Shown || !console.isTerminal() || refreshDue.exchange(true))
        return;
    QMetaObject::invokeMethod(
        this, [this] { QTimer::singleShot(refreshMs, this, &CConsoleMonitor::refresh); },
        Qt::QueuedConnection);
}

/// Label, state, speed, bytes both ways; the state takes the room that the others leave.
QString CConsoleMonitor::rowOf(const Entry &entry, int cells)
{
    QString right;
    if (cells >= cellsWithSpeed) {
        const QString speed =
            entry.speed > 0 ? Global::sizeString(entry.speed) + QStringLiteral("/с") : QString();
        right = QStringLiteral("  ") + paddedLeft(speed, amountCells);
    }
    if (cells >= cellsWithAmounts) {
        right += QStringLiteral("  принято %1  передано %2")
                     .arg(paddedRight(Global::sizeString(entry.received), amountCells),
                          paddedRight(Global::sizeString(entry.sent), amountCells));
    }
    const int stateCells = cells - labelCells - 1 - cellsOf(right);
    return paddedRight(shortenedInMiddle(printable(entry.label), labelCells), labelCells) + QLatin1Char(' ') +
           paddedRight(shortenedInMiddle(printable(entry.state), stateCells), stateCells) + right;
}

void CConsoleMonitor::refresh()
{
    refreshDue = false; // first: what changes from now on is drawn the next time
    const qint64 passedMs = qMax<qint64>(sinceRefresh.restart(), 1);
    const int cells = console.rowWidth();
    QStringList rows = otherRows ? otherRows(cells) : QStringList();
    bool isMoving = !rows.isEmpty();
    std::unique_lock lock(mutex);
    for (auto &[handle, entry] : entries) {
        Q_UNUSED(handle)
        const qint64 bytes = entry.received + entry.sent;
        entry.speed = (bytes - entry.shownBytes) * 1000 / passedMs;
        entry.shownBytes = bytes;
        isMoving |= entry.speed > 0;
        rows << rowOf(entry, cells);
    }
    lock.unlock();
    console.setLiveRows(rows);
    if (isMoving)
        scheduleRefresh(); // once more, so that the speed goes down to zero when nothing moves any more
}
