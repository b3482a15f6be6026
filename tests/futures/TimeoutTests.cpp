#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "execution/Waiting.h"
#include "mirels/execution/StepScheduler.h"
#include "mirels/futures/Future.h"
#include "mirels/futures/TimeoutFuture.h"
#include "platform/ChildProcess.h"
#include "support/SoftAssertions.h"

namespace mirels {
namespace {

TEST(TimeoutError, WritesTheIntervalAsItsShortestExactText) {
    EXPECT_STREQ(TimeoutError::timedOut(5).what(), "Timed out after 5.0 seconds.");
    EXPECT_EQ(TimeoutError::timedOut(0.25).highValueTitle(), "Timed out after 0.25 seconds.");
    EXPECT_EQ(TimeoutError::timedOut(0.1).effectiveTitle(), "Timed out after 0.1 seconds.");
    EXPECT_EQ(TimeoutError::timedOut(1e20).effectiveTitle(), "Timed out after 1e+20 seconds.");
    Error made = TimeoutError::timedOut("the agent")(5);
    EXPECT_EQ(made.humanReadableError()->effectiveTitle(),
              "Timed out waiting for the agent after 5.0 seconds.");
    EXPECT_EQ(made.as<TimeoutError>()->waitingFor(), "the agent");
    EXPECT_EQ(made.humanReadableError()->additionalInfo(), std::nullopt);
    EXPECT_EQ(made.humanReadableError()->additionalDiagnostics(), std::nullopt);
}

TEST(TimeoutFuture, AFinishedFutureGivesItsOutcomeAtOnce) {
    const Error e(std::runtime_error("e"));
    auto succeeded = Future<int>::succeeded(1).timeout(0.01);
    EXPECT_EQ(succeeded.succeededValue()->get(), 1);
    auto failed = Future<int>::failed(e).timeout(0.01);
    EXPECT_EQ(*failed.succeededValue()->failureError(), e);  // a failure is a value here

    auto [running, promise] = Future<int>::create();
    auto limited = running.timeout(60.0);
    promise.fail(e);
    EXPECT_EQ(*limited.succeededValue()->failureError(), e);
}

TEST(TimeoutFuture, FiringFailsWithTheMadeErrorThenCancelsTheWatchedFuture) {
    auto scheduler = StepScheduler::create();
    auto [watched, promise] = Future<int>::create();
    std::vector<std::string> events;
    watched.observeCancelation([&](Callsite) { events.push_back("watched"); });
    auto limited = watched.timeout(0.01, {}, TimeoutError::timedOut("the agent"), scheduler);
    limited.observeFailure([&](const Error&) { events.push_back("timeout"); });
    scheduler->advance(TimePeriod::fromNanoseconds(9'999'999));
    EXPECT_EQ(limited.terminationIfFinished(), nullptr);
    scheduler->advance(TimePeriod::fromNanoseconds(1));
    EXPECT_EQ(limited.recentStateSnapshot().failedError()->humanReadableError()->effectiveTitle(),
              "Timed out waiting for the agent after 0.01 seconds.");
    EXPECT_EQ(events, (std::vector<std::string>{"timeout", "watched"}));
    promise.succeed(1);  // too late: nothing changes
    EXPECT_TRUE(limited.recentStateSnapshot().failedError().has_value());
}

TEST(TimeoutFuture, TheBackgroundTimerFiresTheDefaultForm) {
    auto [watched, promise] = Future<int>::create();
    auto limited = watched.timeout(0.001);
    EXPECT_EQ(limited.unpleasantWait().failedError()->humanReadableError()->effectiveTitle(),
              "Timed out after 0.001 seconds.");
    ASSERT_TRUE(testing::eventually([&] { return watched.isCanceled(); }));
}

TEST(TimeoutFuture, ASchedulerTimeOutSettlesItsTokenOnEveryOutcome) {
    testing::SoftAssertionRecorder reports;
    auto scheduler = StepScheduler::create();
    auto [succeeding, promise] = Future<int>::create();
    auto finished = succeeding.timeout(1.0, scheduler);
    promise.succeed(3);
    EXPECT_EQ(finished.succeededValue()->get(), 3);
    auto [canceled, unused] = Future<int>::create();
    auto limited = canceled.timeout(1.0, scheduler);
    limited.cancel();
    EXPECT_TRUE(canceled.isCanceled());
    EXPECT_EQ(scheduler->pendingCount(), 0U);  // both timers withdrawn
    EXPECT_EQ(scheduler->runUntilIdle(), 0U);
    EXPECT_EQ(reports.count(), 0U);
}

TEST(TimeoutFuture, CancelingItCancelsTheWatchedFutureWithTheSameCallsite) {
    auto [watched, promise] = Future<int>::create();
    auto limited = watched.timeout(60.0);
    const Callsite here = Callsite::current();
    limited.cancel(here);
    EXPECT_EQ(limited.recentStateSnapshot().termination()->canceledCallsite(), here);
    EXPECT_EQ(watched.recentStateSnapshot().termination()->canceledCallsite(), here);
}

TEST(TimeoutFuture, ATimeoutDroppedByItsCallerStillFiresThenGoesAway) {
    auto scheduler = StepScheduler::create();
    auto [watched, promise] = Future<int>::create();
    std::weak_ptr<AbstractFuture<Result<int>>> weak;
    {
        auto limited = watched.timeout(0.005, scheduler);
        weak = limited.object();
    }
    // The watched future's observer holds the time-out while both run, so it still fires.
    EXPECT_FALSE(weak.expired());
    scheduler->advance(TimePeriod::fromNanoseconds(5'000'000));
    EXPECT_TRUE(watched.isCanceled());
    EXPECT_TRUE(weak.expired());
}

// The timer, the watched future's success and a cancel race: exactly one outcome wins.
TEST(TimeoutStress, TimerSuccessAndCancelRaceToOneOutcome) {
    std::array<int, 3> outcomes{};
    for (int round = 0; round < 300; ++round) {
        auto [watched, promise] = Future<int>::create();
        auto limited = watched.timeout(0.0001 * (round % 5));
        std::atomic<int> observed{0};
        limited.observeFinish(
            [&](const FutureTermination<Result<int>>&) { observed.fetch_add(1); });
        std::thread succeeding([promise = promise] { promise.succeed(1); });
        std::thread canceling([limited = limited] { limited.cancel(); });
        succeeding.join();
        canceling.join();
        const auto termination = limited.unpleasantWait();
        ASSERT_TRUE(testing::eventually([&] { return observed.load() >= 1; }));
        EXPECT_EQ(observed.load(), 1);
        outcomes[termination.isCanceled() ? 0 : termination.isSucceeded() ? 1 : 2] += 1;
        if (termination.isSucceeded()) {
            EXPECT_EQ(termination.succeededValue()->get(), 1);
        }
    }
    EXPECT_EQ(outcomes[0] + outcomes[1] + outcomes[2], 300);
}

TEST(EffectiveTimeout, OneValueFromTheEnvironmentReplacesEveryTimeout) {
    const std::string probe =
        std::string(MIRELS_TEST_PROGRAM_DIR) + "/futures_effective_timeout_probe";
    auto run = [&](const char* value) {
        return testing::runChild(probe, {}, {{"QK_TIMEOUT", value}}).output;
    };
    EXPECT_EQ(run("2"), "2\n2\n");
    EXPECT_EQ(run("0.5e1"), "5\n5\n");
    EXPECT_EQ(run("abc"), "30\n0.1\n");
    EXPECT_EQ(run(" 2"), "30\n0.1\n");
    EXPECT_EQ(run("2s"), "30\n0.1\n");
    EXPECT_EQ(run(""), "30\n0.1\n");
}

}  // namespace
}  // namespace mirels
