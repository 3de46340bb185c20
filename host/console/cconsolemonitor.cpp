#include "host/console/cconsolemonitor.h"

#include "common/global.h"
#include "host/console/cconsole.h"

#include <QTimer>

namespace {

constexpr int refreshMs = 400;

QString amounts(qint64 received, qint64 sent)
{
    return QStringLiteral("принято %1, передано %2")
        .arg(Global::sizeString(received), Global::sizeString(sent));
}

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
    printState(label, text);
    scheduleRefresh();
    return handle;
}

void CConsoleMonitor::removeConnection(int handle)
{
    Entry gone;
    {
        const std::lock_guard lock(mutex);
        const auto found = entries.find(handle);
        if (found == entries.end())
            return;
        gone = std::move(found->second);
        entries.erase(found);
    }
    printState(gone.label, QStringLiteral("закрыто, %1").arg(amounts(gone.received, gone.sent)));
    scheduleRefresh();
}

void CConsoleMonitor::setState(int handle, const QString &text)
{
    QString label;
    {
        const std::lock_guard lock(mutex);
        const auto found = entries.find(handle);
        if (found == entries.end() || found->second.state == text)
            return;
        found->second.state = text;
        label = found->second.label;
    }
    printState(label, text);
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

/// Without a live table a change of state is a line.
void CConsoleMonitor::printState(const QString &label, const QString &text)
{
    if (style == Shown && !console.isTerminal())
        console.record(QStringLiteral("соединение"), label, text);
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

void CConsoleMonitor::refresh()
{
    refreshDue = false; // first: what changes from now on is drawn the next time
    const qint64 passedMs = qMax<qint64>(sinceRefresh.restart(), 1);
    bool isMoving = false;
    QStringList rows;
    {
        const std::lock_guard lock(mutex);
        for (auto &[handle, entry] : entries) {
            Q_UNUSED(handle)
            const qint64 bytes = entry.received + entry.sent;
            entry.speed = (bytes - entry.shownBytes) * 1000 / passedMs;
            entry.shownBytes = bytes;
            isMoving |= entry.speed > 0;
            rows << QStringLiteral("| %1 | %2 | %3 | %4 | %5")
                        .arg(entry.label.leftJustified(14),
                             Global::sizeString(entry.received).rightJustified(13),
                             Global::sizeString(entry.sent).rightJustified(13),
                             (entry.speed > 0 ? Global::speedString(entry.speed) : QString())
                                 .rightJustified(29),
                             entry.state);
        }
    }
    rows.prepend(QStringLiteral("| %1 | %2 | %3 | %4 | %5")
                     .arg(QStringLiteral("Соединение").leftJustified(14),
                          QStringLiteral("Принято").rightJustified(13),
                          QStringLiteral("Передано").rightJustified(13),
                          QStringLiteral("Скорость").rightJustified(29), QStringLiteral("Состояние")));
    console.setLiveRows(rows);
    if (isMoving)
        scheduleRefresh(); // once more, so that the speed goes down to zero when nothing moves any more
}
