// Another run of this program, of which we read the errors, or all that it says.
//
// It has a session of its own and goes on when we end; what it says then goes nowhere, which it can bear.
#pragma once

#include "common/descriptor.h"

#include <QByteArray>
#include <QObject>
#include <QStringList>

#include <memory>
#include <sys/types.h>

class QSocketNotifier;

/// Lives in a thread with an event loop.
class CBackgroundRun : public QObject
{
    Q_OBJECT

public:
    CBackgroundRun();
    ~CBackgroundRun() override;

    enum Heard
    {
        Everything,
        Errors, // standard error only
    };

    /// @return null on success, else a text for people
    QString start(const QStringList &arguments, Heard heard);

    bool isRunning() const { return process > 0; }

Q_SIGNALS:
    /// It has said something: one line, untrusted.
    void said(const QString &line);

    /// It has ended. @param code exit code, or 128 and the number of a signal
    void ended(int code);

private:
    void read();

    CDescriptor output;
    pid_t process = -1;
    QByteArray rest;
    std::unique_ptr<QSocketNotifier> notifier;
};
