#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "mirels/core/UnfairLock.h"

namespace mirels {
namespace {

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
    EXPECT_TRUE(lock.try_lock());
    EXPECT_FALSE(lock.try_lock());
    lock.unlock();
}

}  // namespace
}  // namespace mirels
