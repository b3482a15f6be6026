#pragma once

#include <atomic>
#include <cstdint>

namespace mirels {

/// A non-recursive, unfair mutual-exclusion lock over one 4-byte futex word.
///
/// The word is allocated separately, so its address never moves for the lock's lifetime. The
/// uncontended path is one compare-and-swap to lock and one exchange to unlock, inlined into the
/// caller; a contended lock spins briefly, then sleeps in the kernel on the word. Taking the lock
/// again on the thread that holds it deadlocks. Satisfies the standard Lockable requirements, so
/// it works with `std::lock_guard` and `std::unique_lock`.
class UnfairLock {
  public:
    UnfairLock();
    ~UnfairLock();
    UnfairLock(const UnfairLock&) = delete;
    UnfairLock& operator=(const UnfairLock&) = delete;

    void lock() noexcept {
        std::uint32_t expected = unlocked;
        if (word_->compare_exchange_weak(expected, locked, std::memory_order_acquire,
                                         std::memory_order_relaxed)) [[likely]] {
            return;
        }
        lockContended();
    }

    bool try_lock() noexcept {
        std::uint32_t expected = unlocked;
        return word_->compare_exchange_strong(expected, locked, std::memory_order_acquire,
                                              std::memory_order_relaxed);
    }

    void unlock() noexcept {
        if (word_->exchange(unlocked, std::memory_order_release) == lockedWithWaiters)
            [[unlikely]] {
            wakeOne();
        }
    }

  private:
    static constexpr std::uint32_t unlocked = 0;
    static constexpr std::uint32_t locked = 1;
    static constexpr std::uint32_t lockedWithWaiters = 2;

    void lockContended() noexcept;
    void wakeOne() noexcept;

    std::atomic<std::uint32_t>* word_;
};

static_assert(sizeof(std::atomic<std::uint32_t>) == 4, "the lock word is 4 bytes");

}  // namespace mirels
