#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "mirels/core/ThreadSafe.h"
#include "mirels/queries/QueryManager.h"
#include "mirels/queries/ValueCombiner.h"
#include "queries/QueryTestSupport.h"

namespace mirels {
namespace {

using testing::TableResolver;

/// A sum of futures that counts how often it is computed.
struct CountingSum {
    using Input = Future<int>;
    using Output = Future<int>;
    static inline std::atomic<int> performs{0};
    static Output perform(const std::vector<Future<int>>& values) {
        performs.fetch_add(1);
        return FutureMerge<SumMerge<int>>::perform(values);
    }
};

struct StressQuery {
    using Primitive = Future<int>;
    using MergeStrategy = CountingSum;
    int key = 0;
    friend bool operator==(const StressQuery&, const StressQuery&) = default;
};

}  // namespace
}  // namespace mirels

template <>
struct std::hash<mirels::StressQuery> {
    std::size_t operator()(const mirels::StressQuery& q) const noexcept {
        return std::hash<int>{}(q.key);
    }
};

namespace mirels {
namespace {

TEST(QueryManagerStress, SharedFuturesAreComputedOncePerPendingPeriodAndAlwaysDropped) {
    CountingSum::performs = 0;
    ThreadSafe<std::vector<Promise<int>>> outstanding;
    auto answering = [&](int seed) {
        return TableResolver::create(resolve<StressQuery>([&, seed](const StressQuery& query) {
            if ((query.key + seed) % 3 == 0)
                return std::optional(Future<int>::succeeded(query.key));
            auto [future, promise] = Future<int>::create();
            outstanding.syncWrite(
                [&](std::vector<Promise<int>>& list) { list.push_back(promise); });
            return std::optional(future);
        }));
    };
    auto parent = QueryManager::create(nullptr, {answering(1)});
    auto manager = QueryManager::create(nullptr, {answering(0)});
    std::atomic<int> adds{0};
    std::atomic<int> removals{0};
    manager->setTesting_didAddCachedFutureHandler([&] { adds.fetch_add(1); });
    manager->setTesting_didRemoveCompletedCachedFutureHandler([&] { removals.fetch_add(1); });

    std::atomic<bool> stop{false};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    constexpr int askerCount = 6;
    std::vector<std::vector<std::pair<int, Future<int>>>> asked(askerCount);
    std::vector<std::thread> askers;
    for (int t = 0; t < askerCount; ++t) {
        askers.emplace_back([&, t] {
            std::minstd_rand random(static_cast<unsigned>(t));
            for (int i = 0; i < 3000 && std::chrono::steady_clock::now() < deadline; ++i) {
                int key = 1 + static_cast<int>(random() % 4);
                Future<int> future = manager->cachedValue(StressQuery{key});
                if (random() % 16 == 0) future.cancel();
                asked[static_cast<std::size_t>(t)].emplace_back(key, future);
            }
        });
    }
    std::thread replacer([&] {
        std::minstd_rand random(99);
        while (!stop.load()) {
            switch (random() % 4) {
                case 0:
                    manager->setResolvers({answering(0)});
                    break;
                case 1:
                    manager->setResolvers({answering(0), answering(2)});
                    break;
                case 2:
                    manager->setDelegateQueryManager(parent);
                    break;
                default:
                    manager->setDelegateQueryManager(nullptr);
                    break;
            }
            std::this_thread::yield();
        }
    });
    std::atomic<bool> askersDone{false};
    std::thread finisher([&] {
        std::minstd_rand random(7);
        while (true) {
            std::vector<Promise<int>> batch = outstanding.syncUpdate(std::vector<Promise<int>>());
            if (batch.empty()) {
                if (askersDone.load()) break;
                std::this_thread::yield();
                continue;
            }
            for (const Promise<int>& promise : batch) {
                if (random() % 10 == 0) {
                    promise.cancel();
                } else {
                    promise.succeed(1);
                }
            }
        }
    });
    for (auto& asker : askers) asker.join();
    stop = true;
    replacer.join();
    askersDone = true;
    finisher.join();

    EXPECT_EQ(manager->pendingCachedFutureCount(), 0U);
    EXPECT_EQ(adds.load(), CountingSum::performs.load());
    EXPECT_EQ(removals.load(), adds.load());
    EXPECT_GT(adds.load(), 0);
    std::size_t total = 0;
    for (const auto& list : asked) {
        total += list.size();
        for (const auto& [key, future] : list) {
            ASSERT_NE(future.terminationIfFinished(), nullptr);
            if (std::optional<int> sum = future.succeededValue()) {
                EXPECT_GT(*sum, 0);
            }
        }
    }
    // Equal queries asked while one runs share it: fewer computations than requests.
    EXPECT_LT(static_cast<std::size_t>(adds.load()), total);
}

}  // namespace
}  // namespace mirels
