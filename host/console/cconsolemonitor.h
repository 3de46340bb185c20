// The monitor on the console: a live table of the connections below what else is shown live. Without a
// terminal it only keeps the entries; the journal tells what happens.
#pragma once

#include "interfaces/cchannelmonitor.h"

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QStringList>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>

class CConsole;

/// Lives in a thread with an event loop: the table is drawn there, a few times a second and only
/// while something changes.
class CConsoleMonitor : public QObject, public CChannelMonitor
{
    Q_OBJECT

public:
    enum Style
    {
        Shown,
        Silent, // only keeps the entries
    };

    /// @param shownOn outlives the monitor
    CConsoleMonitor(CConsole &shownOn, Style style);

    /// Rows to be shown above the connections while they are, by the cells there are for each. Before the
    /// first connection.
    void showAbove(std::function<QStringList(int cells)> rows) { otherRows = std::move(rows); }

    // [any thread]
    int addConnection(int kind, const QString &label, const QString &text) override;
    void removeConnection(int handle) override;
    void setState(int handle, const QString &text) override;
    void addReceived(int handle, int bytes) override;
    void addSent(int handle, int bytes) override;

    /// The first text of a connection's entry. For a connection that somebody else has opened it
    /// names the address and nothing else that varies, so it tells callers apart. [any thread]
    /// @return null when there is no such entry
    QString originOf(const QString &label) const;

private:
    struct Entry
    {
        QString label;
        QString origin;
        QString state;
        qint64 received = 0;
        qint64 sent = 0;
        qint64 shownBytes = 0; // both ways, when the speed was last measured
        qint64 speed = 0;      // bytes per second
    };

    void addBytes(int handle, qint64 received, qint64 sent);
    static QString rowOf(const Entry &entry, int cells);
    void scheduleRefresh();
    void refresh();

    CConsole &console;
    const Style style;
    std::function<QStringList(int cells)> otherRows;
    QElapsedTimer sinceRefresh;          // the object's thread's own
    std::atomic<bool> refreshDue{false}; // any thread
    mutable std::mutex mutex;            // guards the two below
    std::map<int, Entry> entries;
    int lastHandle = 0;
};
