#pragma once

// `UnfairLock`: a non-recursive, unfair mutual-exclusion lock over one 4-byte futex word. Also
// `UnfairLockGuard`, which holds it for a scope.

#include <atomic>
#include <cstdint>

#include "mirels/Export.h"
#include "mirels/core/ThreadSafetyAnnotations.h"

namespace mirels {

/// A non-recursive, unfair mutual-exclusion lock over one 4-byte futex word.
///
/// The word lives inside the lock: no allocation. Its address never moves because the lock is
/// neither copyable nor movable (and neither is `ThreadSafe`, which embeds it). It holds one of
/// three states: unlocked, locked, and locked with a thread that may be asleep waiting for
/// it. Taking a free lock is one compare-and-swap; releasing it is one atomic exchange, followed by
/// a wake-up system call only when the word said a waiter may be asleep. A thread that finds the
/// lock taken spins briefly (critical sections of the library are short), then marks the word and
/// sleeps on it. A woken thread takes the lock or marks the word again before it sleeps, so a
/// holder that releases and retakes the lock in a loop pays one wake per sleep of a waiter, not one
/// per release, and contention involves only the threads that contend.
///
/// Taking the lock again on the thread that holds it deadlocks. Satisfies the standard Lockable
/// requirements, so it works with `std::lock_guard` and `std::unique_lock`; prefer
/// `UnfairLockGuard`, which Clang's thread-safety analysis understands (data marked
/// `MIRELS_GUARDED_BY` a lock is then checked to be touched only while the lock is held).
class MIRELS_EXPORT MIRELS_CAPABILITY("mutex") UnfairLock {
  public:
    constexpr UnfairLock() noexcept = default;
    ~UnfairLock() = default;
    UnfairLock(const UnfairLock&) = delete;
    UnfairLock& operator=(const UnfairLock&) = delete;
    UnfairLock(UnfairLock&&) = delete;
    UnfairLock& operator=(UnfairLock&&) = delete;

    void lock() noexcept MIRELS_ACQUIRE() {
        std::uint32_t expected = unlocked;
        if (word_.compare_exchange_weak(expected, locked, std::memory_order_acquire,
                                        std::memory_order_relaxed)) [[likely]] {
            return;
        }
        lockContended();
    }

    bool try_lock() noexcept MIRELS_TRY_ACQUIRE(true) {
        std::uint32_t expected = unlocked;
        return word_.compare_exchange_strong(expected, locked, std::memory_order_acquire,
                                             std::memory_order_relaxed);
    }

    void unlock() noexcept MIRELS_RELEASE() {
        if (word_.exchange(unlocked, std::memory_order_release) == lockedWithSleepers)
            [[unlikely]] {
            wakeOne();
        }
    }

  private:
    static constexpr std::uint32_t unlocked = 0;
    static constexpr std::uint32_t locked = 1;
    /// Locked, and some thread may be asleep on the word (or about to sleep on it).
    static constexpr std::uint32_t lockedWithSleepers = 2;

    void lockContended() noexcept;
    void wakeOne() noexcept;

    std::atomic<std::uint32_t> word_{unlocked};
};

static_assert(sizeof(std::atomic<std::uint32_t>) == 4, "the lock word is 4 bytes");

/// Holds an `UnfairLock` from construction to destruction (the guard Clang's thread-safety
/// analysis follows; `std::lock_guard` works too but is invisible to it).
class MIRELS_SCOPED_CAPABILITY UnfairLockGuard {
  public:
    explicit UnfairLockGuard(UnfairLock& lock) noexcept MIRELS_ACQUIRE(lock) : lock_(lock) {
        lock_.lock();
    }
    ~UnfairLockGuard() MIRELS_RELEASE() { lock_.unlock(); }
    UnfairLockGuard(const UnfairLockGuard&) = delete;
    UnfairLockGuard& operator=(const UnfairLockGuard&) = delete;

  private:
    UnfairLock& lock_;
};

}  // namespace mirels
