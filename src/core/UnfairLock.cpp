#include "mirels/core/UnfairLock.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>

namespace mirels {

namespace {
void futex(std::atomic<std::uint32_t>* word, int op, std::uint32_t value) noexcept {
    // The futex word is the atomic's object representation; std::atomic<uint32_t> is lock-free
    // and has the layout of a uint32_t on every platform we build for.
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(word), op | FUTEX_PRIVATE_FLAG, value,
            nullptr, nullptr, 0);
}
}  // namespace

UnfairLock::UnfairLock() : word_(new std::atomic<std::uint32_t>(unlocked)) {}

UnfairLock::~UnfairLock() {
    delete word_;
}

void UnfairLock::lockContended() noexcept {
    // Spin a little first: critical sections of the library are a few instructions long, and a
    // trip through the kernel costs far more than waiting for one of them to end.
    for (int spin = 0; spin < 100; ++spin) {
        std::uint32_t state = word_->load(std::memory_order_relaxed);
        if (state == unlocked &&
            word_->compare_exchange_weak(state, locked, std::memory_order_acquire,
                                         std::memory_order_relaxed)) {
            return;
        }
        if (state == lockedWithWaiters) break;
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
    }
    // Mark the lock as having waiters; whoever unlocks it will wake one of us.
    while (word_->exchange(lockedWithWaiters, std::memory_order_acquire) != unlocked) {
        futex(word_, FUTEX_WAIT, lockedWithWaiters);
    }
}

void UnfairLock::wakeOne() noexcept {
    futex(word_, FUTEX_WAKE, 1);
}

}  // namespace mirels
