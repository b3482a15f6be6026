#include "mirels/core/UnfairLock.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mirels {

namespace {
void futex(std::atomic<std::uint32_t>* word, int op, std::uint32_t value) noexcept {
    // The futex word is the atomic's object representation; std::atomic<uint32_t> is lock-free
    // and has the layout of a uint32_t on every platform we build for.
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(word), op | FUTEX_PRIVATE_FLAG, value,
            nullptr, nullptr, 0);
}

inline void spinPause() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

// Critical sections of the library are a few instructions long: a short spin usually sees the
// lock released, for far less than a trip through the kernel. Each probe waits twice as long as
// the one before (1, 2, 4 ... 64 pauses): a waiter that polled the word at once after every
// release would pull its cache line away from a holder that re-locks in a loop, which costs
// both threads more than the wait saves. Kept short so that a holder that lost its core (more
// threads than cores) does not cost much spinning.
constexpr int spinLimit = 64;
}  // namespace

void UnfairLock::lockContended() noexcept {
    // A thread that has not slept yet takes a free lock as plain "locked": any sleeper there is
    // was woken by the release that freed it and marks the word again itself. A thread that has
    // slept cannot know whether others still sleep, so it takes the lock marked.
    std::uint32_t takeAs = locked;
    for (;;) {
        for (int pauses = 1; pauses <= spinLimit; pauses *= 2) {
            std::uint32_t state = word_.load(std::memory_order_relaxed);
            if (state == unlocked &&
                word_.compare_exchange_weak(state, takeAs, std::memory_order_acquire,
                                            std::memory_order_relaxed)) {
                return;
            }
            for (int i = 0; i < pauses; ++i) spinPause();
        }
        // Mark the word; if that found it free, the lock is ours (marked: others may sleep).
        if (word_.exchange(lockedWithSleepers, std::memory_order_acquire) == unlocked) return;
        futex(&word_, FUTEX_WAIT, lockedWithSleepers);  // sleeps only while the word is marked
        takeAs = lockedWithSleepers;
    }
}

void UnfairLock::wakeOne() noexcept {
    futex(&word_, FUTEX_WAKE, 1);
}

}  // namespace mirels
