// The parent of the checks: each in a process and an installation of its own, several at a time.
#pragma once

#include "host/check/checkarguments.h"
#include "host/check/checkresult.h"

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

    /// @return the address because of which checks have run one after another; null: none
    QString fixedAddress() const { return address; }

    std::vector<CheckResult> results;

private:
    /// A place for one check at a time.
    struct Slot
    {
        QString directory; // the installation
        std::unique_ptr<QProcess> process;
        std::unique_ptr<QTimer> silence;
        std::vector<CheckResult *> checks; // one, or all rules that were asked for
        QElapsedTimer clock;
        QByteArray unread;
        QString lastStep;
        bool wasSilent = false;
    };

    QString prepareSlot(Slot *slot, int number);
    QString renewInstallation(const Slot &slot) const;
    void schedule();
    bool isRunnable(CheckResult *result);
    bool isServerBusy() const;
    void begin(Slot *slot, CheckResult *result);
    QStringList childArguments(const Slot &slot) const;
    void hear(Slot *slot);
    void hearResult(Slot *slot, const QString &line);
    void judge(Slot *slot);
    CheckResult *resultOf(const QString &name);

    const CheckArguments arguments;
    const QStringList words;
    QTemporaryDir directory;
    std::vector<std::unique_ptr<Slot>> slotList;
    std::function<void(const CheckResult &)> tellResult;
    std::size_t told = 0;        // results that have been shown
    bool isAddressKnown = false; // a server has been started
    QString address;             // that all servers have; null: none
    QEventLoop loop;
};
