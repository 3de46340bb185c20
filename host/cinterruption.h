// SIGINT, SIGTERM and SIGHUP as a Qt signal, so that the program ends in order.
#pragma once

#include <QObject>

class CInterruption : public QObject
{
    Q_OBJECT

public:
    /// Keeps the three signals from ending the process, and SIGPIPE too: writing to a reader that has
    /// gone then fails with EPIPE. Called first in main(), before there is any other thread: threads
    /// inherit it.
    static void block();

    /// The signals end the process again, at once: for commands that leave nothing to be put in order. Before
    /// there is another thread.
    static void release();

    /// Begins to listen for them; after block(), in a thread with an event loop.
    CInterruption();
    ~CInterruption() override;

Q_SIGNALS:
    /// The first signal has come. The second one ends the process at once.
    void requested(int signalNumber);

private:
    void readSignal();

    int descriptor;
    bool isRequested = false;
};
