// A transfer as a row on the terminal: percent and time left, state, speed, name.
#pragma once

#include <QString>

struct Progress
{
    QString state; // "принимается"; 11 cells at the most
    QString name;
    QString abonent; // or what else stands before the name where there is room; may be empty
    qint64 done = 0; // bytes
    qint64 size = 0;
    qint64 speed = 0; // bytes per second; 0: unknown, as is the time left
};

/// At most @a cells wide, 39 at least. Where there is little room the amounts, the size and the speed are
/// left out one after the other, and the name is shortened in its middle.
QString progressRow(const Progress &progress, int cells);

/// "45 %" of bytes; 100 only when all are there.
int percentOf(qint64 done, qint64 size);

/// "0:12", "1:05:12"
QString clockText(qint64 seconds);

/// How fast a number of bytes grows, over the last few seconds.
class CSpeedMeter
{
public:
    /// @param nowMs of a clock that does not go back
    void add(qint64 bytes, qint64 nowMs);

    /// Bytes per second; 0 at the beginning and after a rest.
    qint64 speed() const { return qint64(smoothed); }

    /// Whether nothing has come for a while.
    bool isResting() const { return resting; }

private:
    qint64 lastBytes = -1;
    qint64 lastMs = 0;
    qint64 movedMs = 0; // when it grew last
    double smoothed = 0;
    bool resting = false;
};
