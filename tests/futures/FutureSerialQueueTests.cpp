#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "execution/Waiting.h"
#include "mirels/execution/DispatchQueue.h"
#include "mirels/futures/FutureSerialQueue.h"

namespace mirels {
namespace {

TEST(FutureSerialQueue, StartsEachOperationOnlyWhenThePreviousHasFinished) {
    auto queue = FutureSerialQueue<int>::create(ExecutionLane::any());
    std::vector<Promise<int>> started;
    std::vector<Future<int>> results;
    for (int i = 0; i < 3; ++i) {
        results.push_back(
            queue->enqueue([&](Promise<int> promise) { started.push_back(promise); }));
    }
    ASSERT_EQ(started.size(), 1u);
    started[0].succeed(0);
    ASSERT_EQ(started.size(), 2u);  // started within that call, on the immediate lane
    started[1].fail(Error(std::runtime_error("second")));
    ASSERT_EQ(started.size(), 3u);  // a failure moves the queue on too
    started[2].succeed(2);
    EXPECT_EQ(results[0].succeededValue(), 0);
    EXPECT_TRUE(results[1].recentStateSnapshot().failedError().has_value());
    EXPECT_EQ(results[2].succeededValue(), 2);
}

TEST(FutureSerialQueue, CancelingDropsAQueuedOperationAndCancelsARunningOne) {
    auto queue = FutureSerialQueue<int>::create(ExecutionLane::any());
    std::vector<int> made;
    auto [firstWork, firstPromise] = Future<int>::create();
    auto uncancelableWork = firstWork.uncancelable();
    auto first = queue->enqueue([&] {
        made.push_back(1);
        return uncancelableWork;
    });
    auto second = queue->enqueue([&] {
        made.push_back(2);
        return Future<int>::succeeded(2);
    });
    auto third = queue->enqueue([&] {
        made.push_back(3);
        return Future<int>::succeeded(3);
    });
    second.cancel();
    EXPECT_TRUE(second.isCanceled());

    // The running operation ignores the cancel: the queue waits until it really finishes.
    first.cancel();
    EXPECT_EQ(made, std::vector<int>{1});
    firstPromise.succeed(1);
    EXPECT_EQ(made, (std::vector<int>{1, 3}));
    EXPECT_EQ(third.succeededValue(), 3);

    auto [runningWork, runningPromise] = Future<int>::create();
    auto running = queue->enqueue([runningWork = runningWork] { return runningWork; });
    running.cancel();
    EXPECT_TRUE(runningWork.isCanceled());
}

TEST(FutureSerialQueue, ManyOperationsFinishingAtOnceDoNotRecurse) {
    auto queue = FutureSerialQueue<int>::create(ExecutionLane::any());
    auto [gate, gatePromise] = Future<int>::create();
    (void)queue->enqueue([gate = gate] { return gate; });
    constexpr int count = 200'000;  // deep enough to overflow the stack if each started the next
    int ran = 0;
    Future<int> last = gate;
    for (int i = 0; i < count; ++i) {
        last = queue->enqueue([&ran, i] {
            ++ran;
            return Future<int>::succeeded(i);
        });
    }
    EXPECT_EQ(ran, 0);
    gatePromise.succeed(-1);
    EXPECT_EQ(ran, count);
    EXPECT_EQ(last.succeededValue(), count - 1);
}

// A cancel that reaches an operation after it has left the queue but before its start step has
// run on the queue's lane: the work is still made, then canceled, and the queue moves on only
// once that work has finished.
TEST(FutureSerialQueue, ACancelBeforeTheStartStepReachesTheWorkOnceItIsMade) {
    auto dispatch =
        DispatchQueue::create("org.mirels.tests.serial-start", QualityOfService::standard);
    auto queue = FutureSerialQueue<int>::create(ExecutionLane::queue(dispatch));
    std::promise<void> gate;
    dispatch->async([opened = gate.get_future().share()] { opened.wait(); });

    auto [work, workPromise] = Future<int>::create();
    std::atomic<int> made{0};
    auto first = queue->enqueue([&made, work = work] {
        made.fetch_add(1);
        return work;
    });
    auto second = queue->enqueue([&made] {
        made.fetch_add(10);
        return Future<int>::succeeded(2);
    });
    first.cancel();
    EXPECT_TRUE(first.isCanceled());
    EXPECT_EQ(made.load(), 0);

    gate.set_value();
    EXPECT_EQ(second.unpleasantWait().succeededValue(), 2);
    EXPECT_EQ(made.load(), 11);
    ASSERT_TRUE(work.isCanceled());
    EXPECT_STREQ(work.terminationIfFinished()->canceledCallsite()->function(),
                 "cancelOperation(with:)");
}

// Several threads feed one queue: operations run one at a time, each thread's in its order.
TEST(FutureSerialQueueStress, SeveralProducersKeepOneAtATimeAndOrder) {
    auto queue = FutureSerialQueue<int>::create(ExecutionLane::queue("org.mirels.tests.serial"));
    std::atomic<int> running{0};
    std::atomic<int> overlaps{0};
    ThreadSafe<std::vector<std::vector<int>>> seen(std::vector<std::vector<int>>(4));
    std::vector<std::thread> producers;
    std::vector<Future<int>> all;
    std::mutex allMutex;
    for (int p = 0; p < 4; ++p) {
        producers.emplace_back([&, p] {
            for (int i = 0; i < 250; ++i) {
                auto future = queue->enqueue([&, p, i] {
                    if (running.fetch_add(1) != 0) overlaps.fetch_add(1);
                    seen.syncWrite(
                        [&](auto& lists) { lists[static_cast<std::size_t>(p)].push_back(i); });
                    return Future<int>::create([&running, i](Promise<int> promise) {
                        std::thread([&running, promise, i] {
                            running.fetch_sub(1);
                            promise.succeed(i);
                        }).detach();
                    });
                });
                std::lock_guard guard(allMutex);
                all.push_back(future);
            }
        });
    }
    for (auto& producer : producers) producer.join();
    for (const auto& future : all) future.unpleasantWait();
    EXPECT_EQ(overlaps.load(), 0);
    for (const auto& list : seen.peek()) {
        ASSERT_EQ(list.size(), 250u);
        for (int i = 0; i < 250; ++i) EXPECT_EQ(list[static_cast<std::size_t>(i)], i);
    }
}

}  // namespace
}  // namespace mirels
