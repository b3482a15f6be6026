#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "mirels/execution/MainQueue.h"

namespace mirels {
namespace {

TEST(MainQueue, DrainRunsWhatIsPendingInOrderAndNothingNewer) {
    std::vector<int> order;
    for (int i = 0; i < 3; ++i) {
        MainQueue::async([&order, i] {
            order.push_back(i);
            // Resubmitted work waits for the next drain, so drain always returns.
            MainQueue::async([&order, i] { order.push_back(10 + i); });
        });
    }
    EXPECT_EQ(MainQueue::pendingCount(), 3U);
    EXPECT_EQ(MainQueue::drain(), 3U);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(MainQueue::drain(), 3U);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 10, 11, 12}));
    EXPECT_EQ(MainQueue::drain(), 0U);
}

TEST(MainQueue, NestedDrainKeepsSubmissionOrder) {
    std::vector<int> order;
    MainQueue::async([&] {
        order.push_back(0);
        MainQueue::drain();
    });
    MainQueue::async([&] { order.push_back(1); });
    MainQueue::async([&] { order.push_back(2); });
    MainQueue::drain();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}

TEST(MainQueue, RunUntilWakesForWorkFromOtherThreadsAndTimesOut) {
    std::atomic<int> ran{0};
    std::thread producer([&] {
        for (int i = 0; i < 50; ++i) {
            MainQueue::async([&] { ran.fetch_add(1); });
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    });
    EXPECT_TRUE(MainQueue::runUntil([&] { return ran.load() == 50; },
                                    TimePeriod::from(std::chrono::seconds(30))));
    producer.join();

    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(
        MainQueue::runUntil([] { return false; }, TimePeriod::from(std::chrono::milliseconds(20))));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
}

TEST(MainQueue, StopEndsRunFromAnotherThread) {
    std::atomic<bool> ranBeforeStop{false};
    std::thread stopper([&] {
        MainQueue::async([&] { ranBeforeStop = true; });
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        MainQueue::stop();
    });
    MainQueue::run();
    stopper.join();
    EXPECT_TRUE(ranBeforeStop);
}

TEST(MainQueueDeathTest, DrainingOffTheMainThreadStopsTheProcess) {
    EXPECT_DEATH(std::thread([] { MainQueue::drain(); }).join(),
                 "MainQueue::drain\\(\\) must be called on the main thread");
}

}  // namespace
}  // namespace mirels
