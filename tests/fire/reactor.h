// One thread, one epoll: everything on the peers' side of a load test runs in here.
#pragma once

#include <QtGlobal>

#include <functional>
#include <vector>

class Reactor
{
public:
    /// Whoever has descriptors watched, or wants to look at the clock every millisecond.
    class Part
    {
    public:
        virtual void ready(int descriptor) = 0;
        virtual void tick(qint64) {} // microseconds, as now()

    protected:
        ~Part() = default;
    };

    Reactor();
    ~Reactor();

    Reactor(const Reactor &) = delete;
    Reactor &operator=(const Reactor &) = delete;

    void add(Part *part) { parts.push_back(part); }
    void remove(Part *part);

    /// Watches a descriptor for @a events of epoll(7), or changes what it is watched for.
    void watch(int descriptor, quint32 events, Part *part);
    void close(int descriptor);

    /// Runs for @a ms, or until the condition holds. @return whether it does
    bool run(int ms, const std::function<bool()> &until = {});

    static qint64 now(); // microseconds

private:
    int epoll;
    std::vector<Part *> parts;
    std::vector<Part *> owners; // by descriptor
};

/// A non-blocking TCP socket that is connecting to a port of this machine.
int connectTo(int port, int receiveBuffer = 0);
