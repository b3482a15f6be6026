#include "mirels/core/UnfairLock.h"

#include <linux/futex.h>
#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mirels {

namespace detail {
UnfairLockSleepers unfairLockSleepers[unfairLockSleeperSlots];

namespace {
bool registerForProcessBarriers() noexcept {
    return syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
}
}  // namespace

// Decided before main: every unlock reads it, and it never changes afterwards. Without the
// process-wide barrier, unlock orders its store and load with a fence of its own.
bool unfairLockUnlockNeedsFence = !registerForProcessBarriers();
}  // namespace detail

namespace {
void futex(std::atomic<std::uint32_t>* word, int op, std::uint32_t value) noexcept {
    // The futex word is the atomic's object representation; std::atomic<uint32_t> is lock-free
    // and has the layout of a uint32_t on every platform we build for.
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(word), op | FUTEX_PRIVATE_FLAG, value,
            nullptr, nullptr, 0);
}

/// Makes every thread of the process pass a full memory barrier before it returns.
void processWideBarrier() noexcept {
    if (!detail::unfairLockUnlockNeedsFence) {
        syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0);
    }
}
}  // namespace

UnfairLock::UnfairLock() : word_(new std::atomic<std::uint32_t>(unlocked)) {}

UnfairLock::~UnfairLock() {
    delete word_;
}

void UnfairLock::lockContended() noexcept {
    // Spin a little first: critical sections of the library are a few instructions long, and a
    // trip through the kernel costs far more than waiting for one of them to end.
    for (int spin = 0; spin < 128; ++spin) {
        std::uint32_t state = word_->load(std::memory_order_relaxed);
        if (state == unlocked &&
            word_->compare_exchange_weak(state, locked, std::memory_order_acquire,
                                         std::memory_order_relaxed)) {
            return;
        }
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
    }

    // Announce a sleeper, then make sure that every unlock either happened before the barrier
    // (so its store is visible below) or reads the announcement afterwards (so it wakes us).
    auto& sleepers = detail::sleepersFor(word_).count;
    sleepers.fetch_add(1, std::memory_order_seq_cst);
    processWideBarrier();
    for (;;) {
        std::uint32_t expected = unlocked;
        if (word_->compare_exchange_strong(expected, locked, std::memory_order_acquire,
                                           std::memory_order_relaxed)) {
            break;
        }
        futex(word_, FUTEX_WAIT, locked);  // sleeps only while the word still reads "locked"
    }
    sleepers.fetch_sub(1, std::memory_order_relaxed);
}

void UnfairLock::wakeOne() noexcept {
    futex(word_, FUTEX_WAKE, 1);
}

}  // namespace mirels
