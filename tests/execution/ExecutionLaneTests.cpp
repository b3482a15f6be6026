#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "execution/Waiting.h"
#include "mirels/execution/ExecutionLane.h"

namespace mirels {
namespace {

using mirels::testing::eventually;

TEST(ExecutionLane, AnyRunsInlineOnEveryThread) {
    const ExecutionLane any = ExecutionLane::any();
    EXPECT_TRUE(any.isAny());
    EXPECT_EQ(any, ExecutionLane::any());
    EXPECT_NE(any, ExecutionLane::main());
    EXPECT_FALSE(any.queueIdentifier().has_value());
    for (int round = 0; round < 2; ++round) {
        bool current = false;
        bool ran = false;
        auto check = [&] {
            current = any.isCurrent();
            any.execute([&] { ran = true; });
        };
        if (round == 0) {
            check();
        } else {
            std::thread(check).join();
        }
        EXPECT_TRUE(current);
        EXPECT_TRUE(ran);  // before execute returned
    }
}

TEST(ExecutionLane, MainRunsOnlyOnTheMainThread) {
    const ExecutionLane main = ExecutionLane::main();
    bool ranInline = false;
    main.execute([&] { ranInline = true; });
    EXPECT_TRUE(ranInline);
    EXPECT_TRUE(main.isCurrent());

    // Several threads post; every callback must run here, on the main thread, when we drain.
    constexpr int threads = 4;
    constexpr int perThread = 500;
    int ran = 0;      // main thread only
    int offMain = 0;  // a callback run inline on a producer would count here
    std::vector<std::thread> producers;
    for (int t = 0; t < threads; ++t) {
        producers.emplace_back([&] {
            EXPECT_FALSE(main.isCurrent());
            for (int i = 0; i < perThread; ++i) {
                main.execute([&] {
                    ++ran;
                    if (!Thread::isMainThread()) ++offMain;
                });
            }
        });
    }
    EXPECT_TRUE(MainQueue::runUntil([&] { return ran == threads * perThread; },
                                    TimePeriod::from(std::chrono::seconds(60))));
    for (auto& producer : producers) producer.join();
    EXPECT_EQ(offMain, 0);
}

TEST(ExecutionLane, QueueLaneRunsNestedExecuteInlineAndKnowsItsOwnQueue) {
    const ExecutionLane first =
        ExecutionLane::queue("test.lane", QualityOfService::userInteractive);
    const ExecutionLane second =
        ExecutionLane::queue("test.lane", QualityOfService::userInteractive);
    ASSERT_TRUE(first.isQueue());
    EXPECT_EQ(second.queueIdentifier()->identifier, first.queueIdentifier()->identifier + 1);
    EXPECT_EQ(first.dispatchQueue()->identifier(), *first.queueIdentifier());
    EXPECT_NE(first, second);
    EXPECT_EQ(first, ExecutionLane(first));
    EXPECT_EQ(first, ExecutionLane::queue(first.dispatchQueue()));
    EXPECT_FALSE(first.isCurrent());

    std::vector<std::string> events;  // appended only from first's queue
    std::atomic<bool> done{false};
    first.execute([&] {
        events.push_back(first.isCurrent() ? "first current" : "first not current");
        events.push_back(second.isCurrent() ? "second current" : "second not current");
        first.execute([&] { events.push_back("inner"); });
        events.push_back("after inner");
        second.execute([&] {
            // On second's queue now: first is not current here.
            const bool firstCurrent = first.isCurrent();
            const bool secondCurrent = second.isCurrent();
            first.execute([&, firstCurrent, secondCurrent] {
                events.push_back(firstCurrent ? "first current in second"
                                              : "first not current in second");
                events.push_back(secondCurrent ? "second current in second"
                                               : "second not current in second");
                done = true;
            });
        });
    });
    ASSERT_TRUE(eventually([&] { return done.load(); }));
    EXPECT_EQ(events, (std::vector<std::string>{"first current", "second not current", "inner",
                                                "after inner", "first not current in second",
                                                "second current in second"}));
}

TEST(ExecutionLane, ManyProducersOnOneQueueLaneStress) {
    const ExecutionLane lane = ExecutionLane::queue("test.lane.stress");
    constexpr int producers = 4;
    constexpr int perProducer = 20'000;
    std::vector<int> nextExpected(producers, 0);  // touched only on the lane
    int outOfOrder = 0;
    int ran = 0;
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p] {
            ExecutionLane copy = lane;  // copies share the queue
            for (int i = 0; i < perProducer; ++i) {
                copy.execute([&, p, i] {
                    if (nextExpected[p] != i) ++outOfOrder;
                    nextExpected[p] = i + 1;
                    if (++ran == producers * perProducer) done = true;
                });
            }
        });
    }
    for (auto& thread : threads) thread.join();
    ASSERT_TRUE(eventually([&] { return done.load(); }));
    std::atomic<bool> checked{false};
    int ranAtEnd = 0;
    lane.execute([&] {
        ranAtEnd = ran;
        checked = true;
    });
    ASSERT_TRUE(eventually([&] { return checked.load(); }));
    EXPECT_EQ(ranAtEnd, producers * perProducer);
    EXPECT_EQ(outOfOrder, 0);
}

}  // namespace
}  // namespace mirels
