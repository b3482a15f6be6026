#pragma once

// Thin wrappers over the futex system call, for the few places that sleep on a word of their own
// (worker pools, the timer thread, the main queue) instead of a mutex and condition variable.

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

namespace mirels::detail {

/// Sleeps while `*word == expected`, until woken or until the monotonic clock reaches
/// `deadlineTicks` (nanoseconds; zero means no deadline). May return spuriously.
inline void futexWait(std::atomic<std::uint32_t>& word, std::uint32_t expected,
                      std::uint64_t deadlineTicks = 0) noexcept {
    timespec deadline{};
    timespec* deadlinePointer = nullptr;
    if (deadlineTicks != 0) {
        deadline.tv_sec = static_cast<time_t>(deadlineTicks / 1'000'000'000ULL);
        deadline.tv_nsec = static_cast<long>(deadlineTicks % 1'000'000'000ULL);
        deadlinePointer = &deadline;
    }
    // FUTEX_WAIT_BITSET takes an absolute CLOCK_MONOTONIC deadline, so a spurious wake-up does
    // not stretch the total wait.
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word),
            FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, expected, deadlinePointer, nullptr,
            FUTEX_BITSET_MATCH_ANY);
}

/// Wakes up to `count` threads sleeping in `futexWait` on `word`.
inline void futexWake(std::atomic<std::uint32_t>& word, int count) noexcept {
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), FUTEX_WAKE | FUTEX_PRIVATE_FLAG,
            count, nullptr, nullptr, 0);
}

/// A hint to the processor that the caller is spinning.
inline void cpuRelax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield" ::: "memory");
#endif
}

}  // namespace mirels::detail
