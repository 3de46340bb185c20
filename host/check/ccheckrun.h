// The parent of the checks: each in a process and an installation of its own, several at a time.
#pragma once

#include "host/check/checkarguments.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QObject>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>
#include <QTimer>

#include <functional>
#include <memory>
#include <vector>

/// What became of one check.
struct CheckResult
{
    enum Outcome
    {
        Waiting,
        Running,
        Passed,
        Failed,
        Skipped,
    };
    const char *name;
    const char *title;
    Outcome outcome;
    QString text; // why it has failed or was skipped
    qint64 ms;
};

class CCheckRun : public QObject
{
    Q_OBJECT

public:
    /// @param givenWords the words of @a given, for the children
    CCheckRun(const CheckArguments &given, const QStringList &givenWords);

    /// Ends the checks that run.
    ~CCheckRun() override;

    /// Makes the installations. @return null on success, else what is wrong
    QString prepare();

    /// Runs all checks asked for. @param tell gets every result, in the order of the table
    void run(const std::function<void(const CheckResult &)> &tell);

    /// Ends run() early.
    void interrupt();

    std::vector<CheckResult> results;

private:
    /// A place for one check at a time.
    struct Slot
    {
        QString directory; // the installation
        std::unique_ptr<QProcess> process;
        std::unique_ptr<QTimer> silence;
        std::size_t check = 0; // index in results
        QElapsedTimer clock;
        QByteArray unread;
        QString lastStep;
        QString verdict; // "pass", "fail", "skip"; null: not told yet
        QString text;
        bool wasSilent = false;
    };

    QString prepareSlot(Slot *slot, int number);
    QString renewInstallation(const Slot &slot) const;
    void schedule();
    bool isRunnable(CheckResult *result);
    void begin(Slot *slot, std::size_t check);
    void hear(Slot *slot);
    void judge(Slot *slot);
    void finish(std::size_t check, CheckResult::Outcome outcome, const QString &text);

    const CheckArguments arguments;
    const QStringList words;
    QTemporaryDir directory;
    std::vector<std::unique_ptr<Slot>> slotList;
    std::function<void(const CheckResult &)> tellResult;
    std::size_t told = 0; // results that have been shown
    QEventLoop loop;
};
