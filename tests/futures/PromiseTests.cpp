#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "execution/Waiting.h"
#include "mirels/execution/DispatchQueue.h"
#include "mirels/futures/Future.h"
#include "support/SoftAssertions.h"

namespace mirels {
namespace {

using testing::SoftAssertionRecorder;

TEST(Promise, ASecondCompletionIsRefusedAndACancelAfterACompletionIgnored) {
    SoftAssertionRecorder reports;
    const Error e(std::runtime_error("e"));
    auto [future, promise] = Future<int>::create();
    int calls = 0;
    future.observeFinish([&](const FutureTermination<int>&) { ++calls; });
    promise.succeed(1);
    promise.fail(e);
    EXPECT_EQ(reports.count(), 1u);
    promise.cancel();
    EXPECT_EQ(reports.count(), 1u);
    EXPECT_EQ(future.succeededValue(), 1);
    EXPECT_EQ(calls, 1);

    try {
        promise.tryFail(e);
        FAIL() << "expected a TransitionError";
    } catch (const PromiseFuture<int>::TransitionError& error) {
        EXPECT_STREQ(error.what(), "Future cannot transition from succeeded<int> to failed.");
        EXPECT_EQ(error.from().succeededValue(), 1);
        EXPECT_EQ(error.to().failedError(), e);
        EXPECT_EQ(error.effectiveTitle(), error.text());
    }
    EXPECT_EQ(reports.count(), 1u);
    EXPECT_FALSE(promise.isCanceled());
}

TEST(Promise, EverythingAfterACancelIsSilentlyIgnored) {
    SoftAssertionRecorder reports;
    auto [future, promise] = Future<void>::create();
    promise.cancel();
    promise.succeed();
    EXPECT_NO_THROW(promise.trySucceed());
    EXPECT_NO_THROW(promise.tryFail(Error(std::runtime_error("late"))));
    EXPECT_TRUE(future.isCanceled());
    EXPECT_TRUE(promise.isCanceled());
    EXPECT_EQ(reports.count(), 0u);
}

TEST(Promise, FulfillRunsAHandlerHereOrOnAQueue) {
    auto [now, nowPromise] = Future<int>::create();
    nowPromise.fulfill([]() -> int { throw std::invalid_argument("bad"); });
    EXPECT_NE(now.recentStateSnapshot().failedError()->as<std::invalid_argument>(), nullptr);

    auto queue = DispatchQueue::create("org.mirels.tests.promise", QualityOfService::utility);
    auto [later, laterPromise] = Future<bool>::create();
    laterPromise.fulfill(queue, [queue] { return queue->isCurrent(); });
    EXPECT_EQ(later.unpleasantWait().succeededValue(), true);

    bool stopped = false;
    auto [canceled, canceledPromise] = Future<int>::create();
    canceledPromise.observeCancelation([&](Callsite) { stopped = true; });
    canceled.cancel();
    EXPECT_TRUE(stopped);
}

TEST(Promise, TrackFollowsAnotherFutureAndCancellationFlowsBothWays) {
    const Error e(std::runtime_error("e"));
    {
        auto [source, sourcePromise] = Future<int>::create();
        auto [follower, promise] = Future<int>::create();
        promise.track(source);
        sourcePromise.fail(e);
        EXPECT_EQ(follower.recentStateSnapshot().failedError(), e);
    }
    {
        auto [source, sourcePromise] = Future<int>::create();
        auto [follower, promise] = Future<int>::create();
        promise.track(source);
        const Callsite here = Callsite::current();
        follower.cancel(here);
        EXPECT_EQ(source.recentStateSnapshot().termination()->canceledCallsite(), here);
    }
    {
        auto [source, sourcePromise] = Future<int>::create();
        auto [follower, promise] = Future<int>::create();
        promise.track(source);
        const Callsite here = Callsite::current();
        source.cancel(here);
        EXPECT_EQ(follower.recentStateSnapshot().termination()->canceledCallsite(), here);
    }
    {
        auto [future, promise] = Future<int>::create();
        promise.track(future);  // following itself changes nothing
        EXPECT_TRUE(future.recentStateSnapshot().isRunning());
        promise.succeed(2);
        EXPECT_EQ(future.succeededValue(), 2);
    }
}

// Many threads race to succeed, fail and cancel one promise: exactly one wins and every observer
// runs exactly once, with the winner's termination.
TEST(PromiseStress, RacingFinishersHaveExactlyOneWinner) {
    constexpr int rounds = 300;
    constexpr int threadsPerRound = 6;
    for (int round = 0; round < rounds; ++round) {
        auto [future, promise] = Future<int>::create();
        std::atomic<int> observed{0};
        std::atomic<int> successes{0};
        for (int i = 0; i < 3; ++i) {
            future.observeFinish([&](const FutureTermination<int>& t) {
                observed.fetch_add(1);
                if (t.isSucceeded()) successes.fetch_add(1);
            });
        }
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        for (int t = 0; t < threadsPerRound; ++t) {
            threads.emplace_back([&, t, promise = promise, future = future] {
                while (!go.load()) std::this_thread::yield();
                switch (t % 3) {
                    case 0:
                        try {
                            promise.trySucceed(t);
                        } catch (const PromiseFuture<int>::TransitionError&) {
                        }
                        break;
                    case 1:
                        try {
                            promise.tryFail(Error(std::runtime_error("lost")));
                        } catch (const PromiseFuture<int>::TransitionError&) {
                        }
                        break;
                    default:
                        future.cancel();
                        break;
                }
                future.observeFinish([&](const FutureTermination<int>&) { observed.fetch_add(1); });
            });
        }
        go = true;
        for (auto& thread : threads) thread.join();
        EXPECT_EQ(observed.load(), 3 + threadsPerRound);
        const FutureTermination<int>& winner = *future.terminationIfFinished();
        EXPECT_EQ(successes.load(), winner.isSucceeded() ? 3 : 0);
    }
}

}  // namespace
}  // namespace mirels
