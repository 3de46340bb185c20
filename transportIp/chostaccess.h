// A connection's access to its host, which can be revoked.
//
// A worker that cannot be ended is left behind when its server stops, and the host then deletes the
// server, the monitor, the journal and the factory. From then on the worker must not reach them any
// more, so whatever it wants of them it does inside a Use.
#pragma once

#include "common/terminationguard.h"

#include <atomic>

class CHostAccess
{
public:
    /// One use under way. Its thread cannot be terminated meanwhile. [any thread], without a lock of ours
    class Use
    {
    public:
        explicit Use(CHostAccess &access);
        ~Use();

        Use(const Use &) = delete;
        Use &operator=(const Use &) = delete;

        /// @return false when the access was revoked before: leave the host alone
        explicit operator bool() const { return isGranted; }

    private:
        CTerminationGuard guard;
        std::atomic<int> &counter;
        bool isGranted;
    };

    /// Grants no further use and waits until none is under way.
    ///
    /// @param timeoutMs bounds the wait; a use may hang in the host for ever
    /// @return whether none is under way any more
    /// One thread only.
    bool revoke(int timeoutMs);

private:
    std::atomic<int> uses{0}; // under way; negative once revoked
};
