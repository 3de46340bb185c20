// What is found or made once per process, by whoever needs it first, and never destroyed.
//
// No lock is held and no static guard is open while it is made: making may warn, a host's message handler may
// come back here, and a thread may still use it while the process ends. Threads that come at once make one
// each; the first one's stays.
#pragma once

#include <atomic>
#include <memory>

/// Used like a plain pointer, null at first; as a static variable it needs no initialization at run time.
/// [any thread]
template <typename T>
class ProcessWide
{
public:
    constexpr ProcessWide() noexcept = default;

    ProcessWide(const ProcessWide &) = delete;
    ProcessWide &operator=(const ProcessWide &) = delete;

    /// Others may still be using what was there before: it is not freed.
    ProcessWide &operator=(T *other)
    {
        pointer.store(other, std::memory_order_release);
        return *this;
    }

    operator T *() const { return pointer.load(std::memory_order_acquire); }
    T *operator->() const { return *this; }

    /// What is there, or else what @a make returns as a std::unique_ptr<T>.
    template <typename Make>
    T &orMade(const Make &make)
    {
        T *known = *this;
        if (known == nullptr) {
            std::unique_ptr<T> made = make();
            if (pointer.compare_exchange_strong(known, made.get(), std::memory_order_acq_rel))
                known = made.release();
        }
        return *known;
    }

private:
    std::atomic<T *> pointer{nullptr};
};
