// Figures of the running program in a file, for Prometheus: the textfile collector of its node exporter reads
// it. Written now and then and once more at the end; a reader finds the last whole one (a rename).
#pragma once

#include <QByteArray>
#include <QString>
#include <QTimer>

#include <functional>
#include <memory>
#include <utility>
#include <vector>

/// Counters begin at 0 with the program, as Prometheus expects.
struct Metrics
{
    qint64 running = 1;   // 0: the last figures of a program that has ended in order
    qint64 startTime = 0; // seconds since 1970
    qint64 listening = 0;

    qint64 connections = 0; // now
    qint64 connectionsTotal = 0;
    qint64 conversationsTotal = 0;
    qint64 callsTotal = 0;
    qint64 failedCallsTotal = 0;
    qint64 receivedBytes = 0; // of the channels
    qint64 sentBytes = 0;

    qint64 messagesReceived = 0;
    qint64 messagesSent = 0; // and confirmed
    qint64 messageBytesReceived = 0;
    qint64 messageBytesSent = 0;
    qint64 refusals = 0;
    qint64 brokenOff = 0;
    qint64 keyChanges = 0;

    qint64 outboxEntries = 0;
    qint64 outboxBytes = 0;
    qint64 outboxOldestSeconds = 0; // age; 0: nothing waits
    qint64 logBytes = 0;            // all logs of the level
    qint64 journalBytes = 0;
    qint64 openDescriptors = 0;
    qint64 mostDescriptors = 0;

    /// Fills in what is asked of the system: listening, outbox, log, journal, descriptors. Waits for the
    /// disk.
    void lookAround(int level);

    /// The text exposition format. @param labels of every figure, with their values as they are
    QByteArray text(const std::vector<std::pair<QByteArray, QString>> &labels) const;
};

/// Lives in the main thread, which does not wait for the disk: a thread of its own writes.
class CMetricsFile
{
public:
    /// @param path of the file, whose directory exists
    /// @param live gives what the program itself counts; called in the main thread, which has an event loop
    /// @param report told once when the file cannot be written. [any thread]
    CMetricsFile(const QString &path, int level, const QString &ownName, std::function<Metrics()> live,
                 std::function<void(const QString &)> report);

    /// Writes the last figures.
    ~CMetricsFile();

    CMetricsFile(const CMetricsFile &) = delete;
    CMetricsFile &operator=(const CMetricsFile &) = delete;

private:
    class Writer;

    const std::function<Metrics()> live;
    std::unique_ptr<Writer> writer;
    QTimer timer;
};
