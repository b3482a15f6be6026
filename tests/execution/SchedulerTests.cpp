#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "../support/Time.h"
#include "execution/Waiting.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/execution/DispatchScheduler.h"
#include "mirels/execution/StepScheduler.h"
#include "support/SoftAssertions.h"

namespace mirels {
namespace {

using testing::ms;

using namespace std::chrono_literals;
using Tokens = std::vector<std::shared_ptr<CancellationToken>>;

void cancelAll(Tokens& tokens) {
    for (auto& token : tokens) token->cancel();
    tokens.clear();
}

TEST(StepScheduler, RunsInDeadlineOrderThenSchedulingOrderOnlyWhenAdvanced) {
    testing::SoftAssertionRecorder reports;
    auto scheduler = StepScheduler::create(MonotonicTimestamp{1000});
    std::vector<std::string> ran;
    Tokens tokens;
    tokens.push_back(scheduler->scheduleAfter(ms(20), [&] { ran.push_back("c@20"); }));
    tokens.push_back(scheduler->scheduleAfter(ms(10), [&] { ran.push_back("a@10"); }));
    tokens.push_back(scheduler->scheduleAfter(ms(10), [&] { ran.push_back("b@10"); }));
    tokens.push_back(scheduler->scheduleAt(MonotonicTimestamp{0}, [&] { ran.push_back("past"); }));
    tokens.push_back(scheduler->schedule([&] {
        ran.push_back("now");
        // Measured from this action's deadline, due within the same advance.
        tokens.push_back(scheduler->scheduleAfter(
            ms(15), [&] { ran.push_back("nested@15:" + std::to_string(scheduler->now().ticks)); }));
    }));
    EXPECT_TRUE(ran.empty());
    EXPECT_EQ(scheduler->pendingCount(), 5U);
    EXPECT_EQ(scheduler->advance(ms(0)), 2U);  // due already: the past one first
    EXPECT_EQ(ran, (std::vector<std::string>{"past", "now"}));
    EXPECT_EQ(scheduler->advance(ms(15)), 3U);
    EXPECT_EQ(scheduler->now().ticks, 1000U + 15'000'000U);
    EXPECT_EQ(ran, (std::vector<std::string>{"past", "now", "a@10", "b@10", "nested@15:15001000"}));
    EXPECT_EQ(scheduler->nextDeadline()->ticks, 1000U + 20'000'000U);
    scheduler->advanceTo(MonotonicTimestamp{5});  // never backwards
    EXPECT_EQ(scheduler->now().ticks, 1000U + 15'000'000U);
    cancelAll(tokens);
    EXPECT_EQ(scheduler->pendingCount(), 0U);  // cancelling also pending ones: c never runs
    EXPECT_EQ(scheduler->runUntilIdle(), 0U);
    EXPECT_EQ(ran.size(), 5U);
    EXPECT_EQ(reports.count(), 0U);
}

TEST(StepScheduler, RunNextJumpsTheClockAndCancelReleasesTheActionAtOnce) {
    auto scheduler = StepScheduler::create();
    EXPECT_FALSE(scheduler->runNext());
    auto captured = std::make_shared<int>(7);
    std::weak_ptr<int> weakCapture = captured;
    int runs = 0;
    auto dropped = scheduler->scheduleAfter(ms(5), [c = std::move(captured)] { (void)c; });
    auto kept = scheduler->scheduleAfter(ms(50), [&] { ++runs; });
    dropped->cancel();
    EXPECT_TRUE(weakCapture.expired());  // not when the heap gets round to it
    EXPECT_TRUE(scheduler->runNext());
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(scheduler->now().ticks, 50'000'000U);
    kept->cancel();  // after the run: does nothing, reports nothing
    EXPECT_EQ(runs, 1);

    // Destroying the scheduler destroys pending actions without running them.
    auto owned = std::make_shared<int>(1);
    std::weak_ptr<int> weakOwned = owned;
    auto pending = scheduler->scheduleAfter(ms(1), [o = std::move(owned), &runs] { ++runs; });
    scheduler.reset();
    EXPECT_TRUE(weakOwned.expired());
    pending->cancel();
    EXPECT_EQ(runs, 1);
}

TEST(StepScheduler, ManyActionsAtRandomDeadlinesRunSortedAndCancelledOnesNever) {
    auto scheduler = StepScheduler::create();
    std::vector<std::uint64_t> deadlines;
    Tokens tokens;
    std::uint64_t seed = 42;
    for (int i = 0; i < 5000; ++i) {
        seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
        const std::uint64_t deadline = (seed >> 33) % 1000;
        tokens.push_back(scheduler->scheduleAt(MonotonicTimestamp{deadline}, [&, deadline] {
            deadlines.push_back(deadline);
            EXPECT_EQ(scheduler->now().ticks, deadline);
        }));
    }
    for (std::size_t i = 0; i < tokens.size(); i += 3) tokens[i]->cancel();
    EXPECT_EQ(scheduler->advanceTo(MonotonicTimestamp{2000}), 5000U - 1667U);
    EXPECT_TRUE(std::is_sorted(deadlines.begin(), deadlines.end()));
    for (std::size_t i = 0; i < tokens.size(); ++i) {
        if (i % 3 != 0) tokens[i]->cancel();
    }
}

TEST(SchedulerStress, SchedulingAndCancellingFromManyThreadsRunsEachUncancelledActionOnce) {
    testing::SoftAssertionRecorder reports;
    auto scheduler = StepScheduler::create();
    constexpr int threads = 4;
    constexpr int perThread = 2000;
    std::atomic<int> ran{0};
    std::atomic<int> cancelledBeforeRun{0};
    std::atomic<bool> producing{true};
    std::vector<std::thread> producers;
    for (int t = 0; t < threads; ++t) {
        producers.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i) {
                auto token = scheduler->scheduleAfter(TimePeriod{i % 7}, [&] { ++ran; });
                if ((i + t) % 2 == 0) {
                    token->cancel();
                    cancelledBeforeRun.fetch_add(1);
                } else {
                    token->cancel();  // races the advancing thread: either outcome is fine
                }
            }
        });
    }
    std::thread advancer([&] {
        while (producing.load()) scheduler->advance(TimePeriod{3});
    });
    for (auto& producer : producers) producer.join();
    producing = false;
    advancer.join();
    scheduler->runUntilIdle();
    EXPECT_LE(ran.load(), threads * perThread - cancelledBeforeRun.load());
    EXPECT_EQ(scheduler->pendingCount(), 0U);
    EXPECT_EQ(reports.count(), 0U);
}

TEST(DispatchScheduler, RunsOnItsLaneInDeadlineOrderAndSameDeadlinesInOrder) {
    testing::SoftAssertionRecorder reports;
    auto lane = ExecutionLane::queue("scheduler-tests");
    auto scheduler = DispatchScheduler::create(lane);
    ThreadSafe<std::vector<int>> ran;
    std::atomic<bool> onLane{true};
    Tokens tokens;
    const MonotonicTimestamp base = scheduler->now();
    const MonotonicTimestamp shared = Scheduler::deadlineAfter(base, ms(30));
    for (int i = 0; i < 5; ++i) {
        tokens.push_back(scheduler->scheduleAt(shared, [&, i] {
            if (!lane.isCurrent()) onLane = false;
            ran.syncWrite([&](auto& r) { r.push_back(10 + i); });
        }));
    }
    tokens.push_back(scheduler->scheduleAfter(
        ms(5), ms(1), [&] { ran.syncWrite([](auto& r) { r.push_back(1); }); }));
    auto cancelled =
        scheduler->scheduleAfter(ms(10), [&] { ran.syncWrite([](auto& r) { r.push_back(-1); }); });
    cancelled->cancel();
    tokens.push_back(
        scheduler->scheduleAt(base, [&] { ran.syncWrite([](auto& r) { r.push_back(0); }); }));
    ASSERT_TRUE(testing::eventually([&] { return ran.peek().size() == 7; }));
    EXPECT_EQ(ran.peek(), (std::vector<int>{0, 1, 10, 11, 12, 13, 14}));
    EXPECT_TRUE(onLane.load());
    EXPECT_GE((scheduler->now() - base).nanosecondCount, ms(30).nanosecondCount);
    EXPECT_EQ(scheduler->pendingCount(), 0U);
    cancelAll(tokens);
    EXPECT_EQ(reports.count(), 0U);
}

TEST(DispatchScheduler, AnEarlierActionRearmsAndADroppedSchedulerNeverRunsItsActions) {
    auto scheduler = DispatchScheduler::create(ExecutionLane::any());
    std::atomic<int> late{0};
    std::atomic<int> early{0};
    auto lateToken = scheduler->scheduleAfter(TimePeriod::from(1h), [&] { ++late; });
    auto earlyToken = scheduler->scheduleAfter(ms(1), [&] { ++early; });
    ASSERT_TRUE(testing::eventually([&] { return early.load() == 1; }));
    EXPECT_EQ(scheduler->pendingCount(), 1U);

    auto owned = std::make_shared<int>(1);
    std::weak_ptr<int> weakOwned = owned;
    // Due late enough that the scheduler is surely gone first, even on a loaded machine.
    auto orphan = scheduler->scheduleAfter(ms(50), [o = std::move(owned), &late] { ++late; });
    scheduler.reset();
    EXPECT_TRUE(weakOwned.expired());
    std::this_thread::sleep_for(100ms);  // the armed timer fires into nothing
    EXPECT_EQ(late.load(), 0);
    lateToken->cancel();
    earlyToken->cancel();
    orphan->cancel();
}

TEST(SchedulerStress, DispatchSchedulerCancelRacingTheTimerRunsOrDropsEachActionOnce) {
    testing::SoftAssertionRecorder reports;
    auto scheduler = DispatchScheduler::background();
    constexpr int count = 4000;
    std::vector<std::atomic<int>> runs(count);
    std::atomic<int> finished{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = t; i < count; i += 4) {
                auto token = scheduler->scheduleAfter(TimePeriod{(i % 5) * 20'000}, [&, i] {
                    runs[i].fetch_add(1);
                    finished.fetch_add(1);
                });
                if (i % 3 == 0) std::this_thread::yield();
                token->cancel();
            }
        });
    }
    for (auto& thread : threads) thread.join();
    std::this_thread::sleep_for(20ms);
    int total = 0;
    for (auto& r : runs) {
        EXPECT_LE(r.load(), 1);
        total += r.load();
    }
    EXPECT_EQ(total, finished.load());
    EXPECT_EQ(reports.count(), 0U);
}

}  // namespace
}  // namespace mirels
