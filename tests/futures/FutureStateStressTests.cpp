#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "mirels/futures/Future.h"
#include "support/SoftAssertions.h"

namespace mirels {
namespace {

using testing::SoftAssertionRecorder;

// Observers registered from several threads while another finishes: each runs exactly once.
// Those of one thread that were kept for the finish run on the finishing thread in the order
// they were registered, and they come before every one of that thread's later observers, which
// run at once on the thread itself.
TEST(FutureStateStress, RegistrationsRacingTheFinishRunOnceAndInOrder) {
    constexpr int rounds = 200;
    constexpr int registrars = 3;
    constexpr int perThread = 20;
    for (int round = 0; round < rounds; ++round) {
        auto [future, promise] = Future<int>::create();
        std::atomic<int> calls{0};
        std::atomic<std::thread::id> finisherId{};
        // kept[t] is written by the finishing thread only, late[t] by thread t only.
        std::vector<std::vector<int>> kept(registrars);
        std::vector<std::vector<int>> late(registrars);
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        for (int t = 0; t < registrars; ++t) {
            threads.emplace_back([&, t, future = future] {
                while (!go.load()) std::this_thread::yield();
                for (int i = 0; i < perThread; ++i) {
                    future.observeSuccess([&, t, i](int value) {
                        EXPECT_EQ(value, 7);
                        (std::this_thread::get_id() == finisherId.load() ? kept : late)[t]
                            .push_back(i);
                        calls.fetch_add(1);
                    });
                }
            });
        }
        threads.emplace_back([&, promise = promise] {
            finisherId.store(std::this_thread::get_id());
            while (!go.load()) std::this_thread::yield();
            promise.succeed(7);
        });
        while (finisherId.load() == std::thread::id()) std::this_thread::yield();
        go = true;
        for (auto& thread : threads) thread.join();
        EXPECT_EQ(calls.load(), registrars * perThread);
        for (int t = 0; t < registrars; ++t) {
            std::vector<int> all = kept[t];
            all.insert(all.end(), late[t].begin(), late[t].end());
            std::vector<int> expected;
            for (int i = 0; i < perThread; ++i) expected.push_back(i);
            EXPECT_EQ(all, expected) << "thread " << t;
        }
    }
}

// Chains of map and then stages canceled from one thread while the source finishes on another:
// every stage finishes exactly once, and a canceled stage reports the canceling call site or
// the source's outcome, never both and never nothing.
TEST(FutureStateStress, StagesCanceledWhileTheSourceFinishesFinishOnce) {
    SoftAssertionRecorder reports;
    constexpr int rounds = 300;
    for (int round = 0; round < rounds; ++round) {
        auto [source, promise] = Future<int>::create();
        auto inner = Future<int>::create();
        Future<int> mapped = source.mapSuccess([](int v) { return v + 1; });
        Future<int> chained = mapped.then([second = inner.future](int) { return second; });
        Future<int> last = chained.mapSuccess([](int v) { return v * 2; });
        std::atomic<int> finishes{0};
        for (const Future<int>* stage : {&source, &mapped, &chained, &last}) {
            stage->observeFinish([&](const FutureTermination<int>&) { finishes.fetch_add(1); });
        }
        std::atomic<bool> go{false};
        std::thread finisher([&, promise = promise, innerPromise = inner.promise] {
            while (!go.load()) std::this_thread::yield();
            promise.succeed(1);
            innerPromise.succeed(5);
        });
        std::thread canceler([&, target = round % 2 == 0 ? last : chained] {
            while (!go.load()) std::this_thread::yield();
            target.cancel();
        });
        go = true;
        finisher.join();
        canceler.join();
        EXPECT_EQ(finishes.load(), 4);
        const FutureTermination<int>* end = last.terminationIfFinished();
        ASSERT_NE(end, nullptr);
        if (end->isSucceeded()) {
            EXPECT_EQ(end->succeededValue(), 10);
        }
    }
    EXPECT_EQ(reports.count(), 0u);
}

}  // namespace
}  // namespace mirels
