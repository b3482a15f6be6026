#pragma once

#include <atomic>
#include <cstdint>

namespace mirels {

namespace detail {
/// How many threads are asleep (or about to sleep) on lock words that hash to each slot. Shared by
/// all locks so that a lock stays one 4-byte word; a collision costs only a spurious wake call.
struct alignas(64) UnfairLockSleepers {
    std::atomic<std::uint32_t> count{0};
};
inline constexpr std::size_t unfairLockSleeperSlots = 64;
extern UnfairLockSleepers unfairLockSleepers[unfairLockSleeperSlots];
extern bool unfairLockUnlockNeedsFence;

inline UnfairLockSleepers& sleepersFor(const void* word) noexcept {
    auto address = reinterpret_cast<std::uintptr_t>(word);
    return unfairLockSleepers[(address >> 6) % unfairLockSleeperSlots];
}
}  // namespace detail

/// A non-recursive, unfair mutual-exclusion lock over one 4-byte futex word.
///
/// The word is allocated separately, so its address never moves for the lock's lifetime. Taking
/// the lock is one compare-and-swap; releasing it is a plain store followed by a load of the
/// sleeper count for its word, with no atomic read-modify-write: the cost of ordering that store
/// before that load is moved to the rare thread that goes to sleep, which issues a process-wide
/// memory barrier (`membarrier`) before it sleeps. A contended lock spins briefly first. Where the
/// kernel offers no such barrier, unlock falls back to a full fence.
///
/// Taking the lock again on the thread that holds it deadlocks. Satisfies the standard Lockable
/// requirements, so it works with `std::lock_guard` and `std::unique_lock`.
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
        word_->store(unlocked, std::memory_order_release);
        // The load below must follow the store: in the compiler always, and in the processor
        // either through a sleeper's process-wide barrier or, without one, a fence here.
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (detail::unfairLockUnlockNeedsFence) [[unlikely]] {
            std::atomic_thread_fence(std::memory_order_seq_cst);
        }
        if (detail::sleepersFor(word_).count.load(std::memory_order_relaxed) != 0) [[unlikely]] {
            wakeOne();
        }
    }

  private:
    static constexpr std::uint32_t unlocked = 0;
    static constexpr std::uint32_t locked = 1;

    void lockContended() noexcept;
    void wakeOne() noexcept;

    std::atomic<std::uint32_t>* word_;
};

static_assert(sizeof(std::atomic<std::uint32_t>) == 4, "the lock word is 4 bytes");

}  // namespace mirels
