#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "execution/Waiting.h"
#include "mirels/errors/CallsiteError.h"
#include "mirels/futures/Future.h"
#include "mirels/futures/TraverseFuture.h"

namespace mirels {
namespace {

const Error a(std::runtime_error("a"));
const Error b(std::runtime_error("b"));
const Error c(std::runtime_error("c"));

TEST(MapFuture, TransformsResultsAndPassesTheOtherCaseThrough) {
    auto [future, promise] = Future<int>::create();
    bool failureTransformRan = false;
    auto doubled = future.mapSuccess([](int v) { return v * 2; });
    auto text = future.map(
        [](const Result<int>& r) { return Result<std::string>(std::to_string(r.get())); });
    auto kept = future.mapFailure([&](const Error&) {
        failureTransformRan = true;
        return b;
    });
    auto checked =
        future.mapSuccessToResult([](int v) { return v > 5 ? Result<int>(v) : Result<int>(a); });
    auto thrown = future.tryMapSuccess([](int) -> int { throw std::runtime_error("t"); });
    auto nothing = future.mapSuccess([](int) {});
    promise.succeed(3);
    EXPECT_EQ(doubled.succeededValue(), 6);
    EXPECT_EQ(text.succeededValue(), "3");
    EXPECT_EQ(kept.succeededValue(), 3);
    EXPECT_FALSE(failureTransformRan);
    EXPECT_EQ(checked.recentStateSnapshot().failedError(), a);
    EXPECT_STREQ(thrown.recentStateSnapshot().failedError()->exception()->what(), "t");
    EXPECT_TRUE(nothing.hasFinishedSuccessfully());

    bool successTransformRan = false;
    auto failed = Future<int>::failed(a).mapSuccess([&](int v) {
        successTransformRan = true;
        return v;
    });
    EXPECT_EQ(failed.recentStateSnapshot().failedError(), a);
    EXPECT_FALSE(successTransformRan);
    EXPECT_EQ(Future<int>::failed(a)
                  .mapFailure([](const Error&) { return b; })
                  .recentStateSnapshot()
                  .failedError(),
              b);
    EXPECT_EQ(Future<Result<int>>::succeeded(Result<int>(c))
                  .flattened()
                  .recentStateSnapshot()
                  .failedError(),
              c);
}

TEST(MapFuture, ATransformOnALaneRunsThere) {
    auto lane = ExecutionLane::queue("org.mirels.tests.map");
    auto mapped = Future<int>::succeeded(1).mapSuccess(
        lane, [lane](int v) { return lane.isCurrent() ? v : -1; });
    EXPECT_EQ(mapped.unpleasantWait().succeededValue(), 1);
}

TEST(MapFuture, CancelFinishesTheMapFirstThenTheInputWithTheSameCallsite) {
    auto [input, promise] = Future<int>::create();
    auto mapped = input.mapSuccess([](int v) { return v; });
    std::vector<std::string> order;
    input.observeCancelation([&](Callsite) { order.push_back("input"); });
    mapped.observeCancelation([&](Callsite) { order.push_back("map"); });
    const Callsite here = Callsite::current();
    mapped.cancel(here);
    EXPECT_EQ(order, (std::vector<std::string>{"map", "input"}));
    EXPECT_EQ(input.recentStateSnapshot().termination()->canceledCallsite(), here);

    // An input canceled from elsewhere cancels the map, not fails it.
    auto [other, otherPromise] = Future<int>::create();
    auto otherMapped = other.mapSuccess([](int v) { return v; });
    otherPromise.cancel(here);
    EXPECT_EQ(otherMapped.recentStateSnapshot().termination()->canceledCallsite(), here);
}

TEST(FlatMapFuture, ChainsASecondStepAndCancelsWhatItWaitsFor) {
    auto [first, firstPromise] = Future<int>::create();
    auto [second, secondPromise] = Future<std::string>::create();
    int transforms = 0;
    auto chained = first.then([&, second = second](int) {
        ++transforms;
        return second;
    });
    firstPromise.succeed(1);
    EXPECT_EQ(transforms, 1);
    EXPECT_TRUE(chained.recentStateSnapshot().isRunning());

    std::vector<std::string> order;
    second.observeCancelation([&](Callsite) { order.push_back("second"); });
    chained.observeCancelation([&](Callsite) { order.push_back("flatMap"); });
    chained.cancel();
    EXPECT_EQ(order, (std::vector<std::string>{"second", "flatMap"}));
    EXPECT_FALSE(first.isCanceled());

    auto failedFirst = Future<int>::failed(a).then([&](int) {
        ++transforms;
        return Future<int>::succeeded(0);
    });
    EXPECT_EQ(transforms, 1);
    EXPECT_EQ(failedFirst.recentStateSnapshot().failedError(), a);

    auto thrown = Future<int>::succeeded(1).tryThen(
        [](int) -> Future<int> { throw std::runtime_error("t"); });
    EXPECT_STREQ(thrown.recentStateSnapshot().failedError()->exception()->what(), "t");
    auto recovered = Future<int>::failed(a).flatMapFailure(
        [](const Error&) { return Future<int>::succeeded(9); });
    EXPECT_EQ(recovered.succeededValue(), 9);
    auto viaResult = Future<int>::failed(a).flatMap(
        [](const Result<int>& r) { return Future<bool>::succeeded(r.isFailure()); });
    EXPECT_EQ(viaResult.succeededValue(), true);

    auto [running, runningPromise] = Future<int>::create();
    auto beforeFirst = running.then([](int v) { return Future<int>::succeeded(v); });
    beforeFirst.cancel();
    EXPECT_TRUE(running.isCanceled());
}

TEST(UncancelableFuture, IgnoresCancelButFollowsTheShieldedFuture) {
    auto [shielded, promise] = Future<int>::create();
    auto shield = shielded.uncancelable();
    shield.cancel();
    EXPECT_FALSE(shielded.isCanceled());
    EXPECT_TRUE(shield.recentStateSnapshot().isRunning());
    promise.succeed(2);
    EXPECT_EQ(shield.succeededValue(), 2);
}

TEST(TraverseFuture, GivesValuesInOrderOrTheErrorsAsAsked) {
    EXPECT_EQ(invert(std::vector<Future<int>>{}).succeededValue(), std::vector<int>{});

    auto run = [](bool accumulate, std::vector<std::optional<Error>> failures) {
        std::vector<Promise<int>> promises;
        std::vector<Future<int>> futures;
        for (std::size_t i = 0; i < failures.size(); ++i) {
            auto [future, promise] = Future<int>::create();
            futures.push_back(future);
            promises.push_back(promise);
        }
        auto all = invert(futures, accumulate);
        for (std::size_t i = failures.size(); i-- > 0;) {  // arriving in reverse order
            if (failures[i]) {
                promises[i].fail(*failures[i]);
            } else {
                promises[i].succeed(static_cast<int>(i));
            }
            if (i > 0) {
                EXPECT_TRUE(all.recentStateSnapshot().isRunning());
            }
        }
        return *all.terminationIfFinished();
    };
    EXPECT_EQ(run(false, {std::nullopt, std::nullopt}).succeededValue(), (std::vector<int>{0, 1}));
    EXPECT_EQ(run(false, {a, b, c}).failedError(), a);
    EXPECT_EQ(run(true, {std::nullopt, b, std::nullopt}).failedError(), b);
    const Error accumulated = *run(true, {a, b, c}).failedError();
    ASSERT_NE(accumulated.as<AccumulatedError>(), nullptr);
    EXPECT_EQ(accumulated.as<AccumulatedError>()->errors(), (std::vector<Error>{a, b, c}));

    auto squares =
        traverse(std::vector<int>{1, 2, 3}, [](int v) { return Future<int>::succeeded(v * v); });
    EXPECT_EQ(squares.succeededValue(), (std::vector<int>{1, 4, 9}));
}

TEST(TraverseFuture, CancellationReachesEveryElement) {
    std::vector<Future<int>> futures;
    for (int i = 0; i < 3; ++i) futures.push_back(Future<int>::create().future);
    auto done = Future<int>::succeeded(7);
    futures.insert(futures.begin() + 1, done);
    auto all = invert(futures);
    all.cancel();
    EXPECT_TRUE(all.isCanceled());
    for (const auto& future : futures) EXPECT_EQ(future.isCanceled(), !(future == done));

    std::vector<Future<int>> others;
    for (int i = 0; i < 3; ++i) others.push_back(Future<int>::create().future);
    auto allOthers = invert(others);
    const Callsite here = Callsite::current();
    others[1].cancel(here);
    EXPECT_EQ(allOthers.recentStateSnapshot().termination()->canceledCallsite(), here);
    for (const auto& future : others) EXPECT_TRUE(future.isCanceled());
}

TEST(ResultTraversal, CombinesResultsAsTraversalsDo) {
    EXPECT_EQ(invert(std::vector<Result<int>>{1, 2}).get(), (std::vector<int>{1, 2}));
    EXPECT_EQ(*invert(std::vector<Result<int>>{1, a, b}).failureError(), a);
    EXPECT_EQ(*invertAndAccumulateErrors(std::vector<Result<int>>{1, b}).failureError(), b);
    auto both = traverseAndAccumulateErrors(std::vector<int>{1, 2},
                                            [](int v) { return Result<int>(v == 1 ? a : b); });
    EXPECT_EQ(both.failureError()->as<AccumulatedError>()->errors().size(), 2u);
    EXPECT_EQ(traverse(std::vector<int>{3}, [](int v) { return Result<int>(v); }).get(),
              std::vector<int>{3});
}

TEST(AccumulatedError, NumbersAndIndentsEveryErrorsDiagnostics) {
    EXPECT_EQ(AccumulatedError({}).fullDiagnosticsOutput(), "");
    EXPECT_EQ(AccumulatedError({a}).effectiveTitle(), "multiple errors encountered");
    const Callsite site(nullptr, "/src/Grid.cpp", 12, 5, "body");
    const Error titled(CallsiteError<int>(0, site));
    const AccumulatedError error({titled, a});
    EXPECT_EQ(error.effectiveTitle(), "Grid.cpp:12:5 within body");
    EXPECT_EQ(error.fullDiagnosticsOutput(),
              "Error 1:\n   CallsiteError<int>: Grid.cpp:12:5 within body"
              "\n\n==============================\n\n"
              "Error 2:\n   HumanReadableSwiftError\n   \n   runtime_error: a");
}

// A traversal over a thousand futures finished from several threads at once.
TEST(TraverseStress, AThousandFuturesFinishedFromSeveralThreads) {
    for (int round = 0; round < 10; ++round) {
        std::vector<Future<int>> futures;
        std::vector<Promise<int>> promises;
        for (int i = 0; i < 1000; ++i) {
            auto [future, promise] = Future<int>::create();
            futures.push_back(future);
            promises.push_back(promise);
        }
        auto all = invert(futures, round % 2 == 0);
        std::atomic<int> calls{0};
        all.observeFinish([&](const FutureTermination<std::vector<int>>&) { calls.fetch_add(1); });
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (int i = t; i < 1000; i += 4) promises[static_cast<std::size_t>(i)].succeed(i);
            });
        }
        for (auto& thread : threads) thread.join();
        ASSERT_EQ(calls.load(), 1);
        const auto values = *all.succeededValue();
        for (int i = 0; i < 1000; ++i) ASSERT_EQ(values[static_cast<std::size_t>(i)], i);
    }
}

TEST(Combinators, AFinishedChainReleasesEveryLink) {
    std::vector<std::weak_ptr<AbstractFuture<int>>> links;
    auto captured = std::make_shared<int>(0);
    {
        auto [future, promise] = Future<int>::create();
        Future<int> last = future;
        links.push_back(last.object());
        last = last.mapSuccess([captured](int v) { return v + 1; });
        links.push_back(last.object());
        last = last.then([captured](int v) { return Future<int>::succeeded(v); });
        links.push_back(last.object());
        last = last.uncancelable();
        links.push_back(last.object());
        last = invert(std::vector<Future<int>>{last}).mapSuccess([](const std::vector<int>& v) {
            return v[0];
        });
        links.push_back(last.object());
        promise.succeed(1);
        EXPECT_EQ(last.succeededValue(), 2);
    }
    for (const auto& link : links) EXPECT_TRUE(link.expired());
    EXPECT_EQ(captured.use_count(), 1);
}

}  // namespace
}  // namespace mirels
