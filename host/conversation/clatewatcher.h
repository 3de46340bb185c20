// Tells of changes to files and directories, but begins late: to take down what the kernel needs for it takes
// 10 to 20 ms (measured; it waits for its readers), which is long for a program that is done sooner.
#pragma once

#include <QFileSystemWatcher>
#include <QObject>
#include <QStringList>
#include <QTimer>

#include <memory>

class CLateWatcher : public QObject
{
    Q_OBJECT

public:
    /// What comes before is not noticed by itself: who is in a hurry looks from time to time.
    static constexpr int lateMs = 1000;

    CLateWatcher();

    /// Watches these from now on, instead of those before. A name that stands for another file by now is
    /// looked up anew.
    void watch(const QStringList &fileNames);

    /// Begins at once, not late.
    void hurry();

Q_SIGNALS:
    /// Something has changed. Also when watching begins: something may have changed before.
    void changed();

private:
    void begin();

    QStringList names;
    QTimer start;
    std::unique_ptr<QFileSystemWatcher> watcher;
};
