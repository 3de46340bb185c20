// A server in a process of its own, with limits of its own; its standard output is read as it comes.
#pragma once

#include <QMap>
#include <QProcess>

#include <csignal>

class ChildProcess final : public QProcess
{
    Q_OBJECT

public:
    /// @param descriptors the process's limit, soft and hard; negative: soft only; 0: ours
    ChildProcess(const QString &program, const QStringList &arguments, int descriptors = 0);
    ~ChildProcess() override { end(SIGKILL); }

    /// Waits until the process has printed a text.
    bool sees(const QByteArray &text, int ms = 60000);

    /// Gives a command. @return the line it answers; empty when it does not within @a ms
    QByteArray ask(const QByteArray &command, int ms = 60000);

    /// The answer to the command "stats": numbers by name.
    QMap<QByteArray, double> stats();

    /// Sends a signal or, with 0, ends its input. @return its exit code, or minus the signal that ended it
    int end(int signalNumber = 0);

    bool lives() const { return state() == Running; }

    QByteArray output;

protected:
    void setupChildProcess() override;

private:
    const int limit;
};
