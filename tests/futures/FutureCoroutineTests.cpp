#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>

#include "execution/Waiting.h"
#include "mirels/futures/Future.h"
#include "mirels/futures/FutureCoroutines.h"

namespace mirels {
namespace {

Future<int> addOne(Future<int> input) {
    const int value = co_await input;
    co_return value + 1;
}

Future<std::string> describeLater(Future<int> input) {
    try {
        co_return std::to_string(co_await input);
    } catch (const std::runtime_error& error) {
        co_return std::string("error: ") + error.what();
    }
}

Future<void> waitTwice(Future<void> first, Future<void> second, int& steps) {
    co_await first;
    ++steps;
    co_await second;
    ++steps;
}

TEST(FutureCoroutines, AwaitGivesTheValueOrThrowsTheFailure) {
    EXPECT_EQ(addOne(Future<int>::succeeded(1)).succeededValue(), 2);  // no suspension at all

    auto [input, promise] = Future<int>::create();
    auto result = addOne(input);
    EXPECT_TRUE(result.recentStateSnapshot().isRunning());
    promise.succeed(41);
    EXPECT_EQ(result.succeededValue(), 42);

    EXPECT_EQ(
        describeLater(Future<int>::failed(Error(std::runtime_error("boom")))).succeededValue(),
        "error: boom");
    auto escaped = addOne(Future<int>::failed(Error(std::logic_error("escapes"))));
    const auto* error = escaped.recentStateSnapshot().failedError()->as<std::logic_error>();
    ASSERT_NE(error, nullptr);
    EXPECT_STREQ(error->what(), "escapes");
}

TEST(FutureCoroutines, ResumesOnTheLaneTheCallerChooses) {
    auto lane = ExecutionLane::queue("org.mirels.tests.coroutines");
    auto onLane = [](Future<int> input, ExecutionLane lane) -> Future<bool> {
        co_await input.on(lane);
        co_return lane.isCurrent();
    };
    auto [input, promise] = Future<int>::create();
    auto result = onLane(input, lane);
    std::thread([promise = promise] { promise.succeed(1); }).join();
    EXPECT_EQ(result.unpleasantWait().succeededValue(), true);
    EXPECT_EQ(onLane(Future<int>::succeeded(1), lane).unpleasantWait().succeededValue(), true);
}

TEST(FutureCoroutines, CancelingTheCoroutinesFutureCancelsWhatItAwaits) {
    auto [first, firstPromise] = Future<void>::create();
    auto [second, secondPromise] = Future<void>::create();
    int steps = 0;
    auto result = waitTwice(first, second, steps);
    const Callsite here = Callsite::current();
    result.cancel(here);
    EXPECT_EQ(first.recentStateSnapshot().termination()->canceledCallsite(), here);
    EXPECT_EQ(steps, 0);
    EXPECT_EQ(result.recentStateSnapshot().termination()->canceledCallsite(), here);
    EXPECT_FALSE(second.isCanceled());

    // An awaited future canceled from elsewhere cancels the coroutine's future the same way.
    auto [third, thirdPromise] = Future<void>::create();
    auto other = waitTwice(Future<void>::succeeded(), third, steps);
    EXPECT_EQ(steps, 1);
    third.cancel(here);
    EXPECT_EQ(other.recentStateSnapshot().termination()->canceledCallsite(), here);
}

}  // namespace
}  // namespace mirels
