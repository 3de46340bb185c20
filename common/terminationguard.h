// Keeps a thread alive through an operation of ours.
//
// Stragglers are terminated when a server stops. A thread that ends inside one of our locks would
// leave it shut for every module of the process, and one that ends inside a destructor takes the
// whole process with it. So every operation of ours that a connection's thread can be in holds one
// of these. It nests. QThread::setTerminationEnabled would act on a pending request inside the
// guard's own destructor; the cancel state of POSIX waits for the next real cancellation point.
#pragma once

/// While one lives, its thread cannot be terminated. Lives on the stack. [any thread]
class CTerminationGuard
{
public:
    CTerminationGuard() noexcept;
    ~CTerminationGuard();

    CTerminationGuard(const CTerminationGuard &) = delete;
    CTerminationGuard &operator=(const CTerminationGuard &) = delete;

private:
    int previousState = 0; // PTHREAD_CANCEL_*
};
