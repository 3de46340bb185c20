// The listener: hands accepted connections on as bare descriptors.
//
// Qt's own accept loop is switched off. After one failed accept() it stops for good or, when its
// first failure was a harmless one, spins; and it reports later failures wrongly. Ours pauses for a
// moment, tries again, and says what really happened.
#pragma once

#include <QList>
#include <QSocketNotifier>
#include <QTcpServer>
#include <QTimer>

#include <memory>

/// Listens on all IPv4 addresses. [server thread]
class CTcpServer : public QTcpServer
{
    Q_OBJECT

public:
    explicit CTcpServer(QObject *parent = nullptr);

    /// Closes what was accepted and never taken.
    ~CTcpServer() override;

    /// Begins to listen, with a queue long enough for a burst of calls.
    ///
    /// @return false when that fails or it listens already; errorString() tells why
    bool listenOn(quint16 port);

    /// Stops listening; what waits in the kernel's queue is refused.
    void closeListener();

    /// Takes no more connections until resume(). Both do nothing while it does not listen.
    void pause();
    void resume();

    /// @return the text for the last acceptError()
    QString acceptErrorString() const { return acceptErrorText; }

    QList<qintptr> pendingDescriptors; // accepted and not yet handed to a worker, oldest first

protected:
    /// Queues the descriptor and emits newConnection(). No socket is made here.
    void incomingConnection(qintptr socketDescriptor) override;

private:
    void acceptConnections();

    std::unique_ptr<QSocketNotifier> readable; // exists while listening
    QTimer rest;                               // runs while accepting rests after an error
    QString acceptErrorText;
};
