#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "execution/Waiting.h"
#include "mirels/execution/DispatchQueue.h"

namespace mirels {
namespace {

using mirels::testing::eventually;

std::string currentThreadName() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

TEST(DispatchQueue, SerialQueueRunsOneAtATimeInOrderOnItsNamedPool) {
    auto queue = DispatchQueue::create("test.serial", QualityOfService::userInitiated);
    EXPECT_EQ(queue->label(), "test.serial");
    EXPECT_EQ(queue->kind(), DispatchQueue::Kind::serial);
    EXPECT_FALSE(queue->isCurrent());
    EXPECT_FALSE(DispatchQueue::currentIdentifier().has_value());

    // Plain (non-atomic) state: if two callbacks ever overlapped, ThreadSanitizer would say so.
    std::vector<int> order;
    bool wasCurrent = true;
    std::string threadName;
    std::atomic<bool> done{false};
    constexpr int count = 1000;
    for (int i = 0; i < count; ++i) {
        queue->async([&, i] {
            order.push_back(i);
            wasCurrent = wasCurrent && queue->isCurrent() &&
                         DispatchQueue::currentIdentifier() == queue->identifier();
            if (i == count - 1) {
                threadName = currentThreadName();
                done.store(true, std::memory_order_release);
            }
        });
    }
    ASSERT_TRUE(eventually([&] { return done.load(std::memory_order_acquire); }));
    ASSERT_EQ(order.size(), static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) ASSERT_EQ(order[i], i);
    EXPECT_TRUE(wasCurrent);
    EXPECT_EQ(threadName.rfind("mirels.high.", 0), 0U) << threadName;
}

// Many producers flood one serial queue in bursts, so that it keeps going idle and busy again:
// every callback runs exactly once, and each producer's callbacks run in the order it submitted
// them.
TEST(DispatchQueue, ManyProducersStress) {
    auto queue = DispatchQueue::create("test.stress", QualityOfService::standard);
    constexpr int producers = 4;
    constexpr int perProducer = 20'000;
    std::vector<int> nextExpected(producers, 0);  // touched only on the queue
    int outOfOrder = 0;
    std::atomic<int> ran{0};
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p] {
            for (int i = 0; i < perProducer; ++i) {
                queue->async([&, p, i] {
                    if (nextExpected[p] != i) ++outOfOrder;
                    nextExpected[p] = i + 1;
                    ran.fetch_add(1, std::memory_order_release);
                });
                // Pause now and then, long enough for the worker to let the queue go idle, so
                // that the hand-offs between producers and workers get exercised as well.
                if (i % 200 == 0) std::this_thread::sleep_for(std::chrono::microseconds(50));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    ASSERT_TRUE(
        eventually([&] { return ran.load(std::memory_order_acquire) == producers * perProducer; }));
    // Nothing runs twice: the count stays put once everything has run.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(ran.load(std::memory_order_acquire), producers * perProducer);
    queue->async([&] { ran.fetch_add(1, std::memory_order_release); });
    ASSERT_TRUE(eventually(
        [&] { return ran.load(std::memory_order_acquire) == producers * perProducer + 1; }));
    EXPECT_EQ(outOfOrder, 0);
    for (int p = 0; p < producers; ++p) EXPECT_EQ(nextExpected[p], perProducer);
}

TEST(DispatchQueue, PendingWorkKeepsTheQueueAliveAndRuns) {
    std::atomic<int> ran{0};
    std::weak_ptr<DispatchQueue> weak;
    {
        auto queue = DispatchQueue::create("test.lifetime", QualityOfService::utility);
        weak = queue;
        for (int i = 0; i < 100; ++i) {
            queue->async([&ran] {
                std::this_thread::sleep_for(std::chrono::microseconds(10));
                ran.fetch_add(1);
            });
        }
    }
    ASSERT_TRUE(eventually([&] { return ran.load() == 100; }));
    EXPECT_TRUE(eventually([&] { return weak.expired(); }));
}

TEST(DispatchQueue, BackgroundQueueIsConcurrentOnTheLowPool) {
    const auto& background = DispatchQueue::background();
    EXPECT_EQ(background, DispatchQueue::background());
    EXPECT_EQ(background->kind(), DispatchQueue::Kind::concurrent);
    EXPECT_EQ(background->qos(), QualityOfService::background);

    // Two callbacks that can only finish together prove that they run at the same time.
    std::atomic<int> arrived{0};
    std::atomic<int> finishedTogether{0};
    std::atomic<int> onLowPoolAndCurrent{0};
    for (int i = 0; i < 2; ++i) {
        background->async([&] {
            arrived.fetch_add(1);
            if (eventually([&] { return arrived.load() == 2; })) finishedTogether.fetch_add(1);
            if (background->isCurrent() && currentThreadName().rfind("mirels.low.", 0) == 0) {
                onLowPoolAndCurrent.fetch_add(1);
            }
        });
    }
    ASSERT_TRUE(eventually([&] { return finishedTogether.load() == 2; }));
    EXPECT_TRUE(eventually([&] { return onLowPoolAndCurrent.load() == 2; }));
}

}  // namespace
}  // namespace mirels
