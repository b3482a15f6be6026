#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "mirels/futures/OnDemand.h"

namespace mirels {
namespace {

TEST(OnDemand, ComputesAtFirstDemandKeepsTheValueAndResetComputesAgain) {
    int computations = 0;
    OnDemand<std::string> text([&] { return "value " + std::to_string(++computations); });
    EXPECT_FALSE(text.hasValue());
    EXPECT_EQ(text.valueIfPresent(), nullptr);
    EXPECT_EQ(computations, 0);
    const std::string& first = text.value();
    EXPECT_EQ(first, "value 1");
    EXPECT_EQ(&text.value(), &first);
    EXPECT_EQ(computations, 1);
    text.reset();
    EXPECT_FALSE(text.hasValue());
    EXPECT_EQ(text.value(), "value 2");
    EXPECT_EQ(first, "value 1");  // a reference handed out earlier stays valid
}

TEST(OnDemand, AThrowingComputationIsNotKeptAndTheNextDemandTriesAgain) {
    int attempts = 0;
    OnDemand<int> flaky([&]() -> int {
        if (++attempts < 3) throw std::runtime_error("not yet");
        return 42;
    });
    EXPECT_THROW((void)flaky.value(), std::runtime_error);
    EXPECT_FALSE(flaky.hasValue());
    EXPECT_THROW((void)flaky.value(), std::runtime_error);
    EXPECT_EQ(flaky.value(), 42);
    EXPECT_EQ(flaky.value(), 42);
    EXPECT_EQ(attempts, 3);
}

TEST(OnDemandDeathTest, AComputationThatDemandsItsOwnValueStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            OnDemand<int>* self = nullptr;
            OnDemand<int> recursive([&] { return self->value() + 1; });
            self = &recursive;
            (void)recursive.value();
        },
        "demanded its own value");
}

TEST(OnDemandStress, ConcurrentDemandersShareOneComputationAndItsFailure) {
    std::atomic<int> computations{0};
    std::atomic<bool> failNext{true};
    OnDemand<std::vector<int>> shared([&] {
        ++computations;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (failNext.exchange(false)) throw std::runtime_error("first try fails");
        return std::vector<int>(100, 7);
    });
    auto storm = [&](std::atomic<int>& failures, std::atomic<int>& values) {
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t) {
            threads.emplace_back([&] {
                try {
                    if (shared.value().size() == 100) ++values;
                } catch (const std::runtime_error&) {
                    ++failures;
                }
            });
        }
        for (auto& thread : threads) thread.join();
    };
    std::atomic<int> failures{0};
    std::atomic<int> values{0};
    storm(failures, values);
    // Whoever joined the failing computation saw its failure; later demanders computed again.
    EXPECT_GE(failures.load(), 1);
    EXPECT_EQ(failures.load() + values.load(), 8);
    EXPECT_EQ(computations.load(), values.load() > 0 ? 2 : 1);
    const int before = computations.load();
    failures = 0;
    values = 0;
    storm(failures, values);
    EXPECT_EQ(values.load(), 8);
    EXPECT_LE(computations.load(), before + 1);

    // Resets racing readers: each reader sees a whole value, computations never overlap.
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::atomic<int> generation{0};
    OnDemand<int> counter([&] {
        if (inside.fetch_add(1) != 0) overlapped = true;
        const int made = ++generation;
        inside.fetch_sub(1);
        return made;
    });
    std::atomic<bool> stop{false};
    std::thread resetter([&] {
        while (!stop.load()) counter.reset();
    });
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; ++t) {
        readers.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) EXPECT_GT(counter.value(), 0);
        });
    }
    for (auto& reader : readers) reader.join();
    stop = true;
    resetter.join();
    EXPECT_FALSE(overlapped.load());
}

TEST(AsyncOnDemand, DemandersShareOneFutureAndAFailureIsNotKept) {
    int computations = 0;
    std::vector<Promise<int>> promises;
    AsyncOnDemand<int> lazy([&] {
        ++computations;
        auto [future, promise] = Future<int>::create();
        promises.push_back(promise);
        return future;
    });
    Future<int> a = lazy.value();
    Future<int> b = lazy.value();
    EXPECT_EQ(a, b);
    EXPECT_EQ(computations, 1);
    promises[0].fail(Error(std::runtime_error("down")));
    EXPECT_TRUE(a.recentStateSnapshot().failedError().has_value());
    EXPECT_FALSE(lazy.hasValue());

    Future<int> c = lazy.value();
    EXPECT_NE(c, a);
    EXPECT_EQ(computations, 2);
    promises[1].succeed(5);
    EXPECT_EQ(c.succeededValue(), 5);
    EXPECT_EQ(lazy.value(), c);  // a success is kept
    lazy.reset();
    EXPECT_NE(lazy.value(), c);
    EXPECT_EQ(computations, 3);
    promises[2].cancel();  // a canceled computation is not kept either
    EXPECT_FALSE(lazy.hasValue());

    AsyncOnDemand<int> throwing([]() -> Future<int> { throw std::runtime_error("at once"); });
    EXPECT_TRUE(throwing.value().recentStateSnapshot().failedError().has_value());
    EXPECT_FALSE(throwing.hasValue());
}

TEST(AsyncOnDemandStress, ConcurrentDemandersGetTheSameFuture) {
    std::atomic<int> computations{0};
    AsyncOnDemand<int> lazy([&] {
        ++computations;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return Future<int>::succeeded(9);
    });
    std::vector<Future<int>> seen(8, Future<int>::succeeded(0));
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) threads.emplace_back([&, t] { seen[t] = lazy.value(); });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(computations.load(), 1);
    for (const auto& future : seen) {
        EXPECT_EQ(future, seen[0]);
        EXPECT_EQ(future.unpleasantWait().succeededValue(), 9);
    }
}

}  // namespace
}  // namespace mirels
