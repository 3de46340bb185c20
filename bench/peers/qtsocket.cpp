// Plain Qt: a QTcpSocket with readyRead in a QThread of its own for each connection.
#include "bench/peers/net.h"
#include "bench/peers/role.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>

#include <functional>

namespace {

using Serve = std::function<void(QTcpSocket *)>;

/// One connection: adopts the descriptor, or calls the port, and lets @a serve connect its signals.
class Connection : public QThread
{
public:
    Connection(qintptr acceptedDescriptor, int portToCall, Serve serveFunction)
        : descriptor(acceptedDescriptor), port(portToCall), serve(std::move(serveFunction))
    {
        connect(this, &QThread::finished, this, &QObject::deleteLater);
    }

protected:
    void run() override
    {
        QTcpSocket socket;
        connect(&socket, &QTcpSocket::disconnected, this, &QThread::quit, Qt::DirectConnection);
        if (port > 0) {
            socket.connectToHost(QHostAddress(QHostAddress::LocalHost), quint16(port));
            socket.waitForConnected(5000);
        } else {
            socket.setSocketDescriptor(descriptor);
        }
        socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
        serve(&socket);
        if (socket.state() != QAbstractSocket::UnconnectedState)
            exec();
    }

private:
    const qintptr descriptor;
    const int port;
    const Serve serve;
};

class Listener : public QTcpServer
{
public:
    explicit Listener(Serve serveFunction) : serve(std::move(serveFunction))
    {
        listen(QHostAddress::LocalHost);
        Net::announce(serverPort());
    }

protected:
    void incomingConnection(qintptr descriptor) override { (new Connection(descriptor, 0, serve))->start(); }

private:
    const Serve serve;
};

int runApplication(const std::function<int(QCoreApplication &)> &body)
{
    int count = 1;
    char name[] = "peers";
    char *names[] = {name, nullptr};
    QCoreApplication application(count, names);
    return body(application);
}

int serveForEver(const Serve &serve)
{
    return runApplication([&](QCoreApplication &application) {
        Net::exitAtInputEnd();
        const Listener listener(serve);
        return application.exec();
    });
}

int echo(const Arguments &)
{
    return serveForEver([](QTcpSocket *socket) {
        QObject::connect(socket, &QTcpSocket::readyRead, socket,
                         [socket] { socket->write(socket->readAll()); });
    });
}

int hello(const Arguments &)
{
    return serveForEver([](QTcpSocket *socket) {
        const auto answer = [socket] {
            if (socket->bytesAvailable() < qint64(Net::helloSize))
                return;
            socket->write(socket->read(qint64(Net::helloSize)));
            socket->disconnectFromHost();
        };
        QObject::connect(socket, &QTcpSocket::readyRead, socket, answer);
    });
}

int sink(const Arguments &arguments)
{
    const qint64 block = std::stoll(arguments[0]);
    return runApplication([&](QCoreApplication &application) {
        Net::SinkCount count;
        const Listener listener([&](QTcpSocket *socket) {
            QObject::connect(socket, &QTcpSocket::readyRead, socket, [socket, block, &count] {
                for (QByteArray bytes = socket->read(block); !bytes.isEmpty(); bytes = socket->read(block))
                    count.add(size_t(bytes.size()));
            });
            QObject::connect(socket, &QTcpSocket::disconnected, &application, &QCoreApplication::quit);
        });
        application.exec();
        count.report();
        return 0;
    });
}

int source(const Arguments &arguments)
{
    const QByteArray block(std::stoi(arguments[1]), 'x');
    return runApplication([&](QCoreApplication &application) {
        const Net::SourceClock clock(arguments[2]);
        auto *connection = new Connection(0, std::stoi(arguments[0]), [&](QTcpSocket *socket) {
            const auto fill = [socket, &clock, &block] {
                if (clock.over())
                    socket->disconnectFromHost();
                else if (socket->bytesToWrite() < block.size())
                    socket->write(block);
            };
            QObject::connect(socket, &QTcpSocket::bytesWritten, socket, fill);
            fill();
        });
        QObject::connect(connection, &QThread::finished, &application, &QCoreApplication::quit);
        connection->start();
        application.exec();
        clock.report();
        return 0;
    });
}

const Role qtSink("sink qt", "BLOCK", sink);
const Role qtSource("source qt", "PORT BLOCK MS", source);
const Role qtEcho("echo qt", "", echo);
const Role qtHello("hello qt", "", hello);

} // namespace
