#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "../support/LockChecks.h"
#include "mirels/core/UnfairLock.h"

namespace mirels {
namespace {

using testing::expectFreeThenExclusive;

// The lock is free: a first try takes it, a second is refused, and it is given back. (A take
// that depends on a result checked by an assertion is beyond the thread-safety analysis.)
// Holders that stay inside long enough for the others to give up spinning and sleep: every
// thread gets through, never two at once, and no wake-up is lost (a lost one hangs the test).
TEST(UnfairLockStress, SleepingWaitersAreWokenAndExclusionHolds) {
    UnfairLock lock;
    int inside = 0;
    long total = 0;
    std::atomic<bool> overlap{false};
    constexpr int threads = 6;
    constexpr int rounds = 200;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            for (int i = 0; i < rounds; ++i) {
                std::lock_guard guard(lock);
                if (++inside != 1) overlap = true;
                ++total;
                // Now and then a holder lingers, so that the others sleep on the word.
                if ((i + t) % 50 == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
                --inside;
            }
        });
    }
    for (auto& worker : workers) worker.join();
    EXPECT_FALSE(overlap.load());
    EXPECT_EQ(total, static_cast<long>(threads) * rounds);
    expectFreeThenExclusive(lock);
}

// Whether nobody holds the lock (takes it and gives it back at once).
bool isFree(UnfairLock& lock) {
    if (!lock.try_lock()) return false;
    lock.unlock();
    return true;
}

TEST(UnfairLockStress, GuardHoldsTheLockForItsScopeAcrossThreads) {
    UnfairLock lock;
    long total = 0;
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t) {
        workers.emplace_back([&] {
            for (int i = 0; i < 10000; ++i) {
                UnfairLockGuard guard(lock);
                ++total;  // a lost update shows as a short total (and as a race under TSan)
            }
        });
    }
    for (auto& worker : workers) worker.join();
    EXPECT_EQ(total, 40000);
    {
        UnfairLockGuard guard(lock);
        EXPECT_FALSE(isFree(lock));
    }
    EXPECT_TRUE(isFree(lock));
}

}  // namespace
}  // namespace mirels
