// The callers: they drive any server that has printed its port, and look at its process from outside.
#include "bench/peers/net.h"
#include "bench/peers/role.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fstream>
#include <netinet/in.h>
#include <random>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace {

using Measure::now;
using Measure::quantile;

constexpr char message[Net::echoSize] = {};

void sleepFor(double seconds)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

/// Memory that only this process has, in KiB.
double privateKib(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
    double total = 0;
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("Private_", 0) == 0)
            total += std::stod(line.substr(line.find(':') + 1));
    }
    return total;
}

int descriptorCount(pid_t pid)
{
    DIR *directory = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    int count = -2; // "." and ".."
    while (directory != nullptr && readdir(directory) != nullptr)
        ++count;
    if (directory != nullptr)
        closedir(directory);
    return count;
}

/// Per cent of one processor that the process takes while nothing happens.
double idlePercent(pid_t pid, double seconds)
{
    const double cpu = Measure::cpuOf(pid);
    const double begin = now();
    sleepFor(seconds);
    return (Measure::cpuOf(pid) - cpu) / (now() - begin) * 100;
}

void print(const char *metric, double value)
{
    std::printf("%s\t%.6g\n", metric, value);
    std::fflush(stdout);
}

// One connection, one message of 64 bytes at a time.
int roundTrip(const Arguments &arguments)
{
    const int socket = Net::callLoopback(std::stoi(arguments[0]));
    const double seconds = std::stod(arguments[1]) * 1e-3;
    const pid_t pid = std::stoi(arguments[2]);

    std::vector<double> times;
    char answer[Net::echoSize];
    const double end = now() + seconds;
    for (double begin = now(); begin < end; begin = now()) {
        if (!Net::writeAll(socket, message, sizeof message) || !Net::readAll(socket, answer, sizeof answer))
            return 1;
        times.push_back((now() - begin) * 1e6);
    }
    times.erase(times.begin(), times.begin() + long(times.size() / 20)); // warming up
    print("p50 us", quantile(times, 0.5));
    print("p99 us", quantile(times, 0.99));
    sleepFor(0.05);
    print("idle CPU %", idlePercent(pid, 0.5));
    return 0;
}

// Connections one after the other, by several callers at once: 32 bytes there, 32 back, the end.
int cycles(const Arguments &arguments)
{
    const int port = std::stoi(arguments[0]);
    const int clients = std::stoi(arguments[1]);
    const pid_t pid = std::stoi(arguments[3]);

    const auto once = [port] {
        const int socket = Net::callLoopback(port);
        char answer[Net::helloSize + 1];
        const bool good = Net::writeAll(socket, message, Net::helloSize) &&
                          Net::readAll(socket, answer, Net::helloSize) &&
                          recv(socket, answer, sizeof answer, 0) == 0;
        close(socket);
        return good;
    };
    for (int i = 0; i < 50; ++i)
        once();

    std::atomic<long> done{0};
    std::atomic<long> failed{0};
    const double cpu = Measure::cpuOf(pid);
    const double begin = now();
    const double end = begin + std::stod(arguments[2]) * 1e-3;
    std::vector<std::thread> threads;
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back([&] {
            while (now() < end) {
                try {
                    ++(once() ? done : failed);
                } catch (const std::system_error &) {
                    ++failed;
                }
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    const double seconds = now() - begin;
    print("cycles/s", double(done) / seconds);
    print("CPU us/cycle", (Measure::cpuOf(pid) - cpu) * 1e6 / double(done));
    print("failed", double(failed));
    return 0;
}

/// Closes what is in it.
class Sockets : public std::vector<int>
{
public:
    Sockets() = default;
    Sockets(const Sockets &) = delete;
    Sockets &operator=(const Sockets &) = delete;
    ~Sockets()
    {
        for (const int socket : *this)
            close(socket);
    }
};

// All calls at the same moment; over when each has had its 64 bytes back.
double burstMs(int port, int count)
{
    const int poll = Net::check(epoll_create1(EPOLL_CLOEXEC), "epoll_create1");
    Sockets sockets;
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(uint16_t(port));

    const double begin = now();
    for (int i = 0; i < count; ++i) {
        const int socket =
            Net::check(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket");
        sockets.push_back(socket);
        const auto *plain = static_cast<const sockaddr *>(static_cast<const void *>(&address));
        if (connect(socket, plain, sizeof address) < 0 && errno != EINPROGRESS)
            Net::check(-1, "connect");
        epoll_event event = {};
        event.events = EPOLLOUT;
        event.data.fd = socket;
        Net::check(epoll_ctl(poll, EPOLL_CTL_ADD, socket, &event), "epoll_ctl");
    }
    int answered = 0;
    while (answered < count) {
        epoll_event events[64];
        const int ready = Net::check(epoll_wait(poll, events, 64, 20000), "epoll_wait");
        if (ready == 0)
            break; // reported as the long time it took
        for (int i = 0; i < ready; ++i) {
            epoll_event event = events[i];
            const int socket = event.data.fd;
            if ((event.events & EPOLLOUT) != 0) {
                if (!Net::writeAll(socket, message, sizeof message))
                    throw std::runtime_error("a call of the burst was refused");
                event.events = EPOLLIN;
                epoll_ctl(poll, EPOLL_CTL_MOD, socket, &event);
                continue;
            }
            char answer[Net::echoSize];
            if (!Net::readAll(socket, answer, sizeof answer))
                throw std::runtime_error("a call of the burst was not answered");
            epoll_ctl(poll, EPOLL_CTL_DEL, socket, nullptr);
            ++answered;
        }
    }
    close(poll);
    return (now() - begin) * 1e3;
}

int burst(const Arguments &arguments)
{
    const int port = std::stoi(arguments[0]);
    const int count = std::stoi(arguments[1]);
    print("first, ms", burstMs(port, count));
    std::vector<double> again;
    for (int i = 0; i < 3; ++i) {
        sleepFor(0.15);
        again.push_back(burstMs(port, count));
    }
    print("again, ms", quantile(again, 0.5));
    return 0;
}

// Round trips over many connections, a few of them on their way at any time.
void echoOverAll(const Sockets &sockets, double seconds, pid_t pid)
{
    constexpr size_t onTheirWay = 8;
    const int poll = Net::check(epoll_create1(EPOLL_CLOEXEC), "epoll_create1");
    std::vector<double> sentAt(sockets.size(), 0);
    for (size_t i = 0; i < sockets.size(); ++i) {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.u64 = i;
        Net::check(epoll_ctl(poll, EPOLL_CTL_ADD, sockets[i], &event), "epoll_ctl");
    }
    std::mt19937 random(1);
    std::uniform_int_distribution<size_t> any(0, sockets.size() - 1);
    std::vector<double> times;
    size_t busy = 0;
    const auto sendOne = [&] {
        size_t i = any(random);
        while (sentAt[i] != 0)
            i = (i + 1) % sockets.size();
        sentAt[i] = now();
        ++busy;
        Net::writeAll(sockets[i], message, sizeof message);
    };
    const double cpu = Measure::cpuOf(pid);
    const double end = now() + seconds;
    while (busy < std::min(onTheirWay, sockets.size()))
        sendOne();
    while (busy > 0) {
        epoll_event events[onTheirWay];
        const int ready = Net::check(epoll_wait(poll, events, onTheirWay, 5000), "epoll_wait");
        if (ready == 0)
            throw std::runtime_error("an echo is missing");
        for (int i = 0; i < ready; ++i) {
            const size_t which = events[i].data.u64;
            char answer[Net::echoSize];
            if (!Net::readAll(sockets[which], answer, sizeof answer))
                throw std::runtime_error("a connection ended");
            times.push_back((now() - sentAt[which]) * 1e6);
            sentAt[which] = 0;
            --busy;
            if (now() < end)
                sendOne();
        }
    }
    print("CPU us/echo", (Measure::cpuOf(pid) - cpu) * 1e6 / double(times.size()));
    print("p50 us", quantile(times, 0.5));
    print("p99 us", quantile(times, 0.99));
    close(poll);
}

int live(const Arguments &arguments)
{
    const int port = std::stoi(arguments[0]);
    const int count = std::stoi(arguments[1]);
    const double seconds = std::stod(arguments[2]) * 1e-3;
    const pid_t pid = std::stoi(arguments[3]);

    const double memory = privateKib(pid);
    const int descriptors = descriptorCount(pid);
    Sockets sockets;
    const double begin = now();
    for (int i = 0; i < count; ++i) {
        sockets.push_back(Net::callLoopback(port));
        char answer[Net::echoSize];
        if (!Net::writeAll(sockets.back(), message, sizeof message) ||
            !Net::readAll(sockets.back(), answer, sizeof answer))
            throw std::runtime_error("connection " + std::to_string(i + 1) + " was refused");
    }
    print("us to connect", (now() - begin) * 1e6 / count);
    sleepFor(0.3);
    print("private KiB each", (privateKib(pid) - memory) / count);
    print("descriptors each", double(descriptorCount(pid) - descriptors) / count);
    print("idle CPU %", idlePercent(pid, 1.0));
    echoOverAll(sockets, seconds, pid);
    return 0;
}

const Role loadRoundTrip("load roundtrip", "PORT MS PID", roundTrip);
const Role loadCycles("load cycles", "PORT CLIENTS MS PID", cycles);
const Role loadBurst("load burst", "PORT COUNT", burst);
const Role loadLive("load live", "PORT COUNT MS PID", live);

} // namespace
