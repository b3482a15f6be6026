#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "mirels/futures/ConcurrentFutureCache.h"

namespace mirels {
namespace {

TEST(ConcurrentFutureCache, RacingCallersShareOneComputationPerKey) {
    for (int round = 0; round < 50; ++round) {
        ConcurrentFutureCache<std::string, int> cache;
        std::atomic<int> computations{0};
        std::vector<Future<int>> got(8, Future<int>::succeeded(-1));
        std::vector<std::thread> threads;
        for (std::size_t t = 0; t < got.size(); ++t) {
            threads.emplace_back([&, t] {
                got[t] = cache.guaranteedValue("key", [&](const std::string& key) {
                    computations.fetch_add(1);
                    return Future<int>::succeeded(static_cast<int>(key.size()));
                });
            });
        }
        for (auto& thread : threads) thread.join();
        EXPECT_EQ(computations.load(), 1);
        for (const auto& future : got) EXPECT_EQ(future, got[0]);
        EXPECT_EQ(got[0].unpleasantWait().succeededValue(), 3);
    }
}

TEST(ConcurrentFutureCache, FailuresStayAndAThrowingClosureLeavesAFutureThatNeverFinishes) {
    ConcurrentFutureCache<int, int> cache;
    int runs = 0;
    auto failing = [&](int) {
        ++runs;
        return Future<int>::failed(Error(std::runtime_error("failed")));
    };
    auto first = cache.guaranteedValue(1, failing);
    EXPECT_EQ(cache.guaranteedValue(1, failing), first);
    EXPECT_EQ(runs, 1);
    EXPECT_TRUE(first.recentStateSnapshot().failedError().has_value());

    EXPECT_THROW(
        (void)cache.guaranteedValue(2, [](int) -> Future<int> { throw std::runtime_error("x"); }),
        std::runtime_error);
    auto stuck = cache.guaranteedValue(2, failing);
    EXPECT_EQ(runs, 1);
    EXPECT_TRUE(stuck.recentStateSnapshot().isRunning());
}

TEST(ConcurrentFutureCache, CancelingTheCachedFutureCancelsTheComputation) {
    ConcurrentFutureCache<int, int> cache;
    auto [work, promise] = Future<int>::create();
    auto cached = cache.guaranteedValue(1, [work = work](int) { return work; });
    cached.cancel();
    EXPECT_TRUE(work.isCanceled());
}

}  // namespace
}  // namespace mirels
