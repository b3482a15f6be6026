#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "execution/Waiting.h"
#include "mirels/execution/DispatchQueue.h"
#include "mirels/futures/Future.h"
#include "support/SoftAssertions.h"

namespace mirels {
namespace {

using testing::SoftAssertionRecorder;

TEST(FutureTermination, AccessorsAndDescriptionsNameTheCaseOnly) {
    const Error boom(std::runtime_error("boom"));
    const auto succeeded = FutureTermination<int>::succeeded(7);
    const auto failed = FutureTermination<int>::failed(boom);
    const auto canceled = FutureTermination<int>::canceled(Callsite::current());

    EXPECT_EQ(succeeded.description(), "succeeded<int>");
    EXPECT_EQ(FutureTermination<std::string>::succeeded("x").description(),
              "succeeded<basic_string<char, char_traits<char>, allocator<char> >>");
    EXPECT_EQ(failed.description(), "failed");
    EXPECT_EQ(canceled.description(), "canceled");
    EXPECT_EQ(FutureState<int>::running().description(), "running");
    EXPECT_EQ(FutureState<int>::finished(failed).description(), "failed");

    EXPECT_TRUE(succeeded.isCompleted());
    EXPECT_EQ(succeeded.succeededValue(), 7);
    EXPECT_EQ(failed.failedError(), boom);
    EXPECT_FALSE(canceled.completedResult().has_value());
    const Result<int> canceledResult = canceled.result();
    const auto* reason = canceledResult.failureError()->as<FutureCanceled>();
    ASSERT_NE(reason, nullptr);
    EXPECT_EQ(reason->callsite(), *canceled.canceledCallsite());
    EXPECT_EQ(canceled.resultMappingCancelation([](Callsite) { return Result<int>(3); }).get(), 3);
    EXPECT_EQ(succeeded.mapSuccess([](int v) { return v * 2.5; }).succeededValue(), 17.5);
    EXPECT_TRUE(canceled.mapSuccess([](int v) { return v; }).isCanceled());
    EXPECT_TRUE(succeeded.mapSuccess([](int) -> int { throw std::logic_error("no"); }).isFailed());
    EXPECT_EQ(failed.map([](const Result<int>&) { return Result<long>(1L); }).succeededValue(), 1L);
}

TEST(FutureCanceled, IsAHumanReadableErrorNamingTheCancelCallsite) {
    const Callsite where = Callsite::current();
    FutureCanceled canceled(where);
    EXPECT_EQ(canceled.highValueTitle(), std::nullopt);
    EXPECT_EQ(canceled.effectiveTitle(), "the operation was canceled");
    EXPECT_EQ(canceled.additionalInfo(), std::nullopt);
    EXPECT_EQ(canceled.additionalDiagnostics(), "cancelation callsite: " + where.description());
}

TEST(Future, ObserversRunInOrderOnceOutsideTheLockAndAtOnceWhenFinished) {
    auto [future, promise] = Future<int>::create();
    std::vector<std::string> calls;
    future.observeSuccess([&](int v) { calls.push_back("A" + std::to_string(v)); });
    future.observeFinish([&, future = future](const FutureTermination<int>&) {
        // An observer may read the state and register more: the lock is not held.
        EXPECT_TRUE(future.hasFinishedSuccessfully());
        future.observeSuccess([&](int) { calls.push_back("nested"); });
        calls.push_back("B");
    });
    future.observeFailure([&](const Error&) { calls.push_back("failure"); });
    future.observeCompletion(
        [&](const Result<int>& r) { calls.push_back("C" + std::to_string(r.get())); });
    for (int i = 0; i < 4; ++i) future.observeSuccess([&](int) { calls.push_back("more"); });
    EXPECT_TRUE(calls.empty());
    EXPECT_FALSE(future.runningTime().has_value());

    promise.succeed(1);
    EXPECT_EQ(calls, (std::vector<std::string>{"A1", "nested", "B", "C1", "more", "more", "more",
                                               "more"}));
    ASSERT_TRUE(future.runningTime().has_value());
    EXPECT_GE(future.runningTime()->nanosecondCount, 0);

    calls.clear();
    future.observeSuccess([&](int v) { calls.push_back("late" + std::to_string(v)); });
    EXPECT_EQ(calls, std::vector<std::string>{"late1"});
}

TEST(Future, CancellationReachesOnlyTheObserversThatAskForIt) {
    auto [future, promise] = Future<void>::create();
    int completions = 0;
    std::vector<std::string> unsuccessful;
    std::optional<Callsite> canceledFrom;
    future.observeCompletion([&](const Result<void>&) { ++completions; });
    future.observeCancelation([&](Callsite c) { canceledFrom = c; });
    future.observeUnsuccessfulResult(
        [&](const Error& e) { unsuccessful.push_back(*e.humanReadableError()->effectiveTitle()); });
    std::optional<bool> converted;
    future.observeFinishConvertingCancelationToFailure([&](const Result<void>& r) {
        converted = r.failureError()->as<FutureCanceled>() != nullptr;
    });
    const Callsite here = Callsite::current();
    future.cancel(here);
    EXPECT_EQ(completions, 0);
    EXPECT_EQ(canceledFrom, here);
    EXPECT_EQ(unsuccessful, std::vector<std::string>{"the operation was canceled"});
    EXPECT_EQ(converted, true);
    EXPECT_TRUE(future.isCanceled());
}

TEST(Future, CancelOrObserveSuccessKeepsAValueThatIsAlreadyThere) {
    auto done = Future<int>::succeeded(4);
    int got = 0;
    done.cancelOrObserveSuccess([&](int v) { got = v; });
    EXPECT_EQ(got, 4);
    EXPECT_TRUE(done.hasFinishedSuccessfully());

    auto [running, promise] = Future<int>::create();
    running.cancelOrObserveSuccess([&](int) { got = -1; });
    promise.succeed(5);
    EXPECT_TRUE(running.isCanceled());
    EXPECT_EQ(got, 4);
}

TEST(Future, ConstantFuturesAndTheirCallsites) {
    SoftAssertionRecorder reports;
    const Callsite here = Callsite::current();
    EXPECT_EQ(Future<int>::succeeded(1, here).initializationCallsite(), here);
    EXPECT_EQ(Future<int>::completed([] { return 2; }).succeededValue(), 2);
    auto thrown = Future<int>::completed([]() -> int { throw std::runtime_error("x"); });
    EXPECT_STREQ(thrown.recentStateSnapshot().failedError()->exception()->what(), "x");
    EXPECT_TRUE(Future<void>::succeeded().hasFinishedSuccessfully());
    EXPECT_EQ(reports.count(), 0u);

    auto unreachable = Future<int>::unreachable("never");
    EXPECT_NE(unreachable.recentStateSnapshot().failedError()->as<Unreachable>(), nullptr);
    EXPECT_EQ(reports.count(), 1u);

    auto fromError = future<std::string>(Error(std::runtime_error("e")));
    EXPECT_STREQ(fromError.initializationCallsite().function(), "future()");
    EXPECT_EQ(fromError.recentStateSnapshot().description(), "failed");

    fromError.cancel();  // a finished future ignores cancels
    EXPECT_FALSE(fromError.isCanceled());
}

TEST(Future, ALaneObserverRunsOnItsLaneInRegistrationOrder) {
    auto lane = ExecutionLane::queue("org.mirels.tests.futures.lane");
    auto [future, promise] = Future<int>::create();
    ThreadSafe<std::vector<int>> seen;
    std::atomic<int> onLane{0};
    for (int i = 0; i < 5; ++i) {
        future.observeSuccess(lane, [&, i, lane](int) {
            onLane += lane.isCurrent() ? 1 : 0;
            seen.syncWrite([&](auto& list) { list.push_back(i); });
        });
    }
    std::thread finisher([promise = promise] { promise.succeed(1); });
    finisher.join();
    ASSERT_TRUE(testing::eventually([&] { return seen.peek().size() == 5; }));
    EXPECT_EQ(seen.peek(), (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(onLane.load(), 5);
}

TEST(Future, UnpleasantWaitBlocksUntilAnotherThreadFinishes) {
    auto [future, promise] = Future<std::string>::create();
    std::thread finisher([promise = promise] { promise.succeed("done"); });
    EXPECT_EQ(future.unpleasantWait().succeededValue(), "done");
    finisher.join();
}

/// A kind that finishes only when told to, and twice if asked: for the base's own rules.
class ManualFuture final : public AbstractFuture<int> {
  public:
    explicit ManualFuture(Callsite callsite) : AbstractFuture<int>(callsite) {}
    void finish(FutureTermination<int> termination) { didFinish(std::move(termination)); }
    void keepAlive(const std::shared_ptr<ManualFuture>& self) { retainSelfWhileRunning(self); }
    void cancel(Callsite callsite = Callsite::current()) override {
        didFinish(FutureTermination<int>::canceled(callsite));
    }
};

TEST(Future, ASecondFinishIsReportedAndDropped) {
    SoftAssertionRecorder reports;
    auto manual = std::make_shared<ManualFuture>(Callsite::current());
    int calls = 0;
    manual->observeFinish([&](const FutureTermination<int>&) { ++calls; });
    manual->finish(FutureTermination<int>::succeeded(1));
    manual->finish(FutureTermination<int>::failed(Error(std::runtime_error("late"))));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(manual->succeededValue(), 1);
    ASSERT_EQ(reports.count(), 1u);
    EXPECT_TRUE(reports.files()[0].starts_with("FutureCallsites.cpp:")) << reports.files()[0];
}

TEST(Future, ARunningFutureDroppedByEveryoneGoesAwayWithItsObservers) {
    auto captured = std::make_shared<int>(0);
    std::weak_ptr<AbstractFuture<int>> weakFuture;
    {
        auto [future, promise] = Future<int>::create();
        future.observeSuccess([captured](int) {});
        future.observeFailure(ExecutionLane::main(), [captured](const Error&) {});
        weakFuture = future.object();
    }
    EXPECT_TRUE(weakFuture.expired());
    EXPECT_EQ(captured.use_count(), 1);

    // Unless it keeps itself alive while it runs; then it goes once it has finished.
    std::weak_ptr<ManualFuture> weakManual;
    {
        auto manual = std::make_shared<ManualFuture>(Callsite::current());
        manual->keepAlive(manual);
        weakManual = manual;
    }
    auto manual = weakManual.lock();
    ASSERT_NE(manual, nullptr);
    manual->finish(FutureTermination<int>::succeeded(1));
    manual.reset();
    EXPECT_TRUE(weakManual.expired());
}

// Observers without a lane are kept as they are: in the inline slot when they fit, on the heap
// when they do not. Where a node lives must not change the order, the cases called, or what a
// future that goes away running lets go of.
TEST(Future, InlineAndHeapObserversKeepOrderCasesAndRelease) {
    struct Large {
        std::array<char, 512> bytes{};
    };
    auto captured = std::make_shared<int>(0);
    std::vector<std::string> calls;
    {
        auto [future, promise] = Future<int>::create();
        future.observeSuccess([&calls, large = Large{}](int) {
            calls.push_back(large.bytes.size() == 512 ? "large" : "?");
        });
        future.observeSuccess([&calls](int v) { calls.push_back("small " + std::to_string(v)); });
        future.observeFailure([&calls](const Error&) { calls.push_back("failure"); });
        future.observeFinish([&calls, captured](const FutureTermination<int>& termination) {
            calls.push_back(termination.description());
        });
        EXPECT_EQ(captured.use_count(), 2);
        promise.succeed(5);
        EXPECT_EQ(captured.use_count(), 1);  // let go once called
    }
    EXPECT_EQ(calls, (std::vector<std::string>{"large", "small 5", "succeeded<int>"}));

    {
        auto [future, promise] = Future<int>::create();
        future.observeCancelation([captured, large = Large{}](Callsite) { (void)large; });
        future.observeCancelation([captured](Callsite) {});
        EXPECT_EQ(captured.use_count(), 3);
    }
    EXPECT_EQ(captured.use_count(), 1);  // never called, still released
}

TEST(Future, AnObserverMayDropThePromiseThatFinishesIt) {
    auto promise = std::make_optional(Future<int>::create().promise);
    int got = 0;
    promise->future().observeSuccess([&](int v) {
        promise.reset();  // the last reference to the future
        got = v;
    });
    promise->succeed(3);
    EXPECT_EQ(got, 3);
}

}  // namespace
}  // namespace mirels
