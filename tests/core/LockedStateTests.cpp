#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "../support/LockChecks.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/core/UnfairLock.h"
#include "mirels/execution/ThreadGuard.h"
#include "support/SoftAssertions.h"

namespace mirels {
namespace {

using testing::expectFreeThenExclusive;

// The lock is free: a first try takes it, a second is refused, and it is given back. (A take
// that depends on a result checked by an assertion is beyond the thread-safety analysis.)
using testing::SoftAssertionRecorder;

struct Coordinates {
    int x = 0;
    int y = 0;
};

TEST(ThreadSafe, ConvenienceOperations) {
    ThreadSafe<int> box(1);
    EXPECT_EQ(box.syncUpdate(2), 1);
    EXPECT_EQ(box.peek(), 2);
    EXPECT_EQ(box.unsafePeek(), 2);

    auto shared = ThreadSafe<Coordinates>::create(Coordinates{1, 2});
    shared->syncSetValue(&Coordinates::y, 5);
    EXPECT_EQ(shared->syncRead([](const Coordinates& p) { return p.x * 10 + p.y; }), 15);
}

TEST(ThreadSafe, AThrowingWriteReleasesTheLockAndKeepsItsChanges) {
    ThreadSafe<std::vector<int>> box;
    EXPECT_THROW(box.syncWrite([](std::vector<int>& v) {
        v.push_back(1);
        throw std::runtime_error("after the change");
    }),
                 std::runtime_error);
    // Would deadlock if the lock had stayed held.
    EXPECT_EQ(box.syncRead([](const std::vector<int>& v) { return v; }), std::vector<int>{1});
}

TEST(ThreadSafe, ManyThreadsWritingEndWithTheExactSum) {
    ThreadSafe<long> box(0);
    constexpr int threads = 8;
    constexpr int increments = 20'000;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&] {
            for (int i = 0; i < increments; ++i) box.syncWrite([](long& v) { ++v; });
        });
    }
    for (auto& worker : workers) worker.join();
    EXPECT_EQ(box.peek(), long{threads} * increments);
}

TEST(UnfairLock, ExcludesUnderHeavyContentionWithSleepers) {
    UnfairLock lock;
    long plain = 0;  // a data race (and a TSan report) if exclusion ever fails
    std::atomic<int> inside{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t) {
        workers.emplace_back([&] {
            for (int i = 0; i < 5'000; ++i) {
                std::lock_guard guard(lock);
                EXPECT_EQ(inside.fetch_add(1), 0);
                ++plain;
                if (i % 500 == 0) std::this_thread::yield();  // force waiters into the kernel
                inside.fetch_sub(1);
            }
        });
    }
    for (auto& worker : workers) worker.join();
    EXPECT_EQ(plain, 20'000);
    expectFreeThenExclusive(lock);
}

TEST(ThreadGuard, AccessFromAnotherThreadIsReportedButStillHappens) {
    SoftAssertionRecorder reports;
    auto guard = ThreadGuard<int>::requiringAccessOnThread(41);
    EXPECT_EQ(guard.syncRead([](int v) { return v; }), 41);
    guard.syncWrite([](int& v) { ++v; });
    EXPECT_EQ(reports.count(), 0u);

    int seen = 0;
    std::thread([&] { seen = guard.syncRead([](int v) { return v; }); }).join();
    EXPECT_EQ(seen, 42);
    EXPECT_EQ(reports.count(), 1u);
    std::thread([&] { guard.syncWrite([](int& v) { v = 7; }); }).join();
    EXPECT_EQ(reports.count(), 2u);
    EXPECT_EQ(guard.peek(), 7);
}

TEST(ThreadGuard, ReentrantUseIsReportedOncePerFailedCheck) {
    SoftAssertionRecorder reports;
    auto guard = ThreadGuard<int>::requiringAccessOnThread(1);
    guard.syncRead([&](int) { guard.syncWrite([](int& v) { v = 2; }); });
    EXPECT_EQ(reports.count(), 1u);  // readers not zero
    EXPECT_EQ(guard.unsafePeek(), 2);

    reports.clear();
    guard.syncWrite([&](int&) { guard.syncRead([](int) {}); });
    EXPECT_EQ(reports.count(), 1u);  // writers not zero
    reports.clear();
    guard.syncWrite([&](int&) { guard.syncWrite([](int&) {}); });
    EXPECT_EQ(reports.count(), 1u);  // writers not zero
    EXPECT_EQ(guard.readers(), 0);
    EXPECT_EQ(guard.writers(), 0);

    // Counters unwind when a closure throws.
    EXPECT_THROW(guard.syncWrite([](int&) { throw 1; }), int);
    EXPECT_EQ(guard.writers(), 0);
}

class FixedTracker final : public ExecutionExclusivityTracking {
  public:
    explicit FixedTracker(ExecutionExclusivity value) : value_(value) {}
    ExecutionExclusivity currentExecutionExclusivity() const override { return value_; }

  private:
    ExecutionExclusivity value_;
};

TEST(ThreadGuard, SharedAccessMayReadButNotWrite) {
    SoftAssertionRecorder reports;
    ThreadGuard<int> guard(3, std::make_shared<FixedTracker>(ExecutionExclusivity::shared));
    EXPECT_EQ(guard.peek(), 3);
    EXPECT_EQ(reports.count(), 0u);
    guard.syncUpdate(4);
    EXPECT_EQ(reports.count(), 1u);
    EXPECT_EQ(guard.unsafePeek(), 4);
}

}  // namespace
}  // namespace mirels
