// Whether a file is still as it was when somebody last looked, without looking again.
//
// A file that is used thousands of times a second need not be asked for that often: while looks come faster
// than the clock ticks (a few ms), the kernel is left to tell of changes (inotify), and the question whether
// it has costs a third of a stat(). In every tick there is one real look at the least, so what the kernel
// does not tell of (a directory above renamed, a file written by another machine) shows with the next tick.
// Who looks seldom never has a watch; where none is to be had, or somebody else has closed it, every look is
// a real one.
#pragma once

#include "common/descriptor.h"

#include <QByteArray>
#include <QMutex>

#include <atomic>

/// [any thread] No lock on the way through isUntouched().
class CFileWatch
{
public:
    enum Scope
    {
        Name,            // which file the name stands for, and its rights
        NameAndContents, // and what is written into it
    };

    /// @param path of the file, absolute, encoded for the system
    CFileWatch(QByteArray path, Scope scope);

    /// Whether the file is certainly as it was at the latest look.
    bool isUntouched() const;

    /// A number for a look that begins now.
    quint64 beginLook();

    /// That look has found the file as it should be.
    void endLook(quint64 look);

private:
    void start();
    bool watch();
    void check();
    void takeEvents();
    void stop();

    const QByteArray path;
    const Scope scope;

    // What was found by the look that began in a state is good as long as that lasts. While the state is odd
    // somebody is taking events away, which no other look can see any more.
    std::atomic<quint64> state{2};
    std::atomic<quint64> provedState{0};
    std::atomic<qint64> provedTick{0};

    std::atomic<qint64> lookTick{0};
    std::atomic<int> looksInTick{0}; // while there is no watch
    std::atomic<int> watching{-1};   // the descriptor, while all that is needed is watched

    QMutex mutex;                                       // guards the three below
    CKeptDescriptor descriptor{CKeptDescriptor::Watch}; // stays open for those who are asking it
    int directoryWatch = -1;
    int fileWatch = -1;
};
