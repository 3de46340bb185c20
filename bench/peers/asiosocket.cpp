// asio: one thread, every connection by its own chain of completion handlers.
#include "bench/peers/net.h"
#include "bench/peers/role.h"

#include <array>
#include <asio.hpp>
#include <memory>

namespace {

using asio::ip::tcp;

class Echo : public std::enable_shared_from_this<Echo>
{
public:
    explicit Echo(tcp::socket accepted) : socket(std::move(accepted)) {}

    void read()
    {
        socket.async_read_some(asio::buffer(block),
                               [self = shared_from_this()](std::error_code error, size_t size) {
                                   if (!error)
                                       self->write(size);
                               });
    }

private:
    void write(size_t size)
    {
        asio::async_write(socket, asio::buffer(block, size),
                          [self = shared_from_this()](std::error_code error, size_t) {
                              if (!error)
                                  self->read();
                          });
    }

    tcp::socket socket;
    std::array<char, 4096> block{};
};

class Hello : public std::enable_shared_from_this<Hello>
{
public:
    explicit Hello(tcp::socket accepted) : socket(std::move(accepted)) {}

    void read()
    {
        asio::async_read(socket, asio::buffer(block),
                         [self = shared_from_this()](std::error_code error, size_t) {
                             if (!error)
                                 self->answer();
                         });
    }

private:
    void answer()
    {
        asio::async_write(socket, asio::buffer(block), [self = shared_from_this()](std::error_code, size_t) {
            std::error_code ignored;
            self->socket.close(ignored);
        });
    }

    tcp::socket socket;
    std::array<char, Net::helloSize> block{};
};

template <typename Connection>
void acceptNext(tcp::acceptor &acceptor)
{
    acceptor.async_accept([&acceptor](std::error_code error, tcp::socket socket) {
        if (!error) {
            socket.set_option(tcp::no_delay(true));
            std::make_shared<Connection>(std::move(socket))->read();
        }
        acceptNext<Connection>(acceptor);
    });
}

template <typename Connection>
int serveForEver(const Arguments &)
{
    Net::exitAtInputEnd();
    asio::io_context context(1);
    tcp::acceptor acceptor(context, tcp::v4(), Net::listenLoopback());
    Net::announce(acceptor.local_endpoint().port());
    acceptNext<Connection>(acceptor);
    context.run();
    return 0;
}

int sink(const Arguments &arguments)
{
    std::vector<char> block(std::stoul(arguments[0]));
    asio::io_context context(1);
    tcp::acceptor acceptor(context, tcp::v4(), Net::listenLoopback());
    Net::announce(acceptor.local_endpoint().port());
    tcp::socket socket = acceptor.accept();
    Net::SinkCount count;
    std::function<void()> read = [&] {
        socket.async_read_some(asio::buffer(block), [&](std::error_code error, size_t size) {
            if (error)
                return;
            count.add(size);
            read();
        });
    };
    read();
    context.run();
    count.report();
    return 0;
}

int source(const Arguments &arguments)
{
    const std::vector<char> block(std::stoul(arguments[1]), 'x');
    asio::io_context context(1);
    tcp::socket socket(context, tcp::v4(), Net::callLoopback(std::stoi(arguments[0])));
    const Net::SourceClock clock(arguments[2]);
    std::function<void()> write = [&] {
        asio::async_write(socket, asio::buffer(block), [&](std::error_code error, size_t) {
            if (!error && !clock.over())
                write();
        });
    };
    write();
    context.run();
    socket.close();
    clock.report();
    return 0;
}

const Role asioSink("sink asio", "BLOCK", sink);
const Role asioSource("source asio", "PORT BLOCK MS", source);
const Role asioEcho("echo asio", "", serveForEver<Echo>);
const Role asioHello("hello asio", "", serveForEver<Hello>);

} // namespace
