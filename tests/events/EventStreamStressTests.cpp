// Several threads sending, subscribing and cancelling at once. Run under ThreadSanitizer in CI;
// the checks here are about which events each subscriber gets, never about timing.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "mirels/events/EventStream.h"
#include "support/SoftAssertions.h"

namespace mirels {
namespace {

using testing::SoftAssertionRecorder;

constexpr int senderCount = 3;

struct Numbered {
    int sender;
    long sequence;
};

/// One subscription's window and what it received.
struct Subscription {
    std::array<long, senderCount> from{};   // every send numbered from here on includes it
    std::array<long, senderCount> until{};  // every send numbered below here had returned
    std::array<long, senderCount> after{};  // no send numbered from here on may reach it
    std::mutex mutex;
    std::array<std::vector<long>, senderCount> received;
};

TEST(EventStreamStress, EachSubscriberGetsExactlyTheSendsOfItsWindow) {
    SoftAssertionRecorder reports;
    auto sink = EventStream<Numbered>::Sink::create();
    // started[s]: sends of sender s numbered below it may have begun; completed[s]: those
    // numbered below it have returned.
    std::array<std::atomic<long>, senderCount> started{}, completed{};
    std::atomic<bool> stop{false};

    std::vector<std::thread> senders;
    for (int s = 0; s < senderCount; ++s) {
        senders.emplace_back([&, s] {
            for (long sequence = 0; !stop.load(); ++sequence) {
                started[s].store(sequence + 1);
                sink->send(Numbered{s, sequence});
                completed[s].store(sequence + 1);
            }
        });
    }

    constexpr int subscriberThreads = 3;
    constexpr int rounds = 60;
    std::vector<std::vector<std::shared_ptr<Subscription>>> results(subscriberThreads);
    std::vector<std::thread> subscribers;
    for (int t = 0; t < subscriberThreads; ++t) {
        subscribers.emplace_back([&, t] {
            for (int round = 0; round < rounds; ++round) {
                auto subscription = std::make_shared<Subscription>();
                auto token = sink->observe([subscription](const Numbered& event) {
                    std::lock_guard guard(subscription->mutex);
                    subscription->received[static_cast<std::size_t>(event.sender)].push_back(
                        event.sequence);
                });
                for (int s = 0; s < senderCount; ++s) subscription->from[s] = started[s].load();
                // Let every sender complete a few sends inside the window.
                for (int s = 0; s < senderCount; ++s) {
                    while (completed[s].load() < subscription->from[s] + 3)
                        std::this_thread::yield();
                }
                for (int s = 0; s < senderCount; ++s) subscription->until[s] = completed[s].load();
                token->cancel();
                for (int s = 0; s < senderCount; ++s) subscription->after[s] = started[s].load();
                results[static_cast<std::size_t>(t)].push_back(subscription);
            }
        });
    }
    for (auto& thread : subscribers) thread.join();
    stop.store(true);
    for (auto& thread : senders) thread.join();

    EXPECT_FALSE(sink->isObserved());
    EXPECT_EQ(reports.count(), 0u);
    for (const auto& perThread : results) {
        for (const auto& subscription : perThread) {
            for (int s = 0; s < senderCount; ++s) {
                const auto& got = subscription->received[static_cast<std::size_t>(s)];
                // In order, each at most once, none after the cancel returned.
                for (std::size_t i = 1; i < got.size(); ++i) ASSERT_LT(got[i - 1], got[i]);
                for (long sequence : got) ASSERT_LT(sequence, subscription->after[s]);
                // Everything sent wholly inside the window arrived.
                long expected = 0;
                for (long sequence : got) {
                    if (sequence >= subscription->from[s] && sequence < subscription->until[s]) {
                        ++expected;
                    }
                }
                ASSERT_EQ(expected, subscription->until[s] - subscription->from[s]);
            }
        }
    }
}

// The sink goes away (its last holder may be either of two threads) while two other threads
// cancel their subscriptions: every cancel is safe whether it comes before, during or after
// the sink's end, and every handler is released exactly once.
TEST(EventStreamStress, CancelsRaceTheSinksDestruction) {
    SoftAssertionRecorder reports;
    auto capture = std::make_shared<int>(0);
    for (int round = 0; round < 200; ++round) {
        auto sink = EventStream<int>::Sink::create();
        std::array<std::vector<std::shared_ptr<CancellationToken>>, 2> tokens;
        for (int i = 0; i < 16; ++i) {
            tokens[static_cast<std::size_t>(i % 2)].push_back(sink->observe([capture](int) {}));
        }
        std::atomic<int> ready{0};
        auto startTogether = [&ready] {
            ready.fetch_add(1);
            while (ready.load() < 4) std::this_thread::yield();
        };
        std::vector<std::thread> threads;
        for (auto& mine : tokens) {
            threads.emplace_back([&startTogether, &mine] {
                startTogether();
                for (const auto& token : mine) token->cancel();
            });
        }
        threads.emplace_back([&startTogether, held = sink]() mutable {
            startTogether();
            held->send(1);
            held.reset();
        });
        startTogether();
        sink.reset();
        for (auto& thread : threads) thread.join();
        ASSERT_EQ(capture.use_count(), 1) << "round " << round;
    }
    EXPECT_EQ(reports.count(), 0u);
}

TEST(EventStreamStress, SwitchToLatestCancelsEveryInnerSubscriptionOnceUnderRaces) {
    SoftAssertionRecorder reports;
    for (int round = 0; round < 100; ++round) {
        auto outer = EventStream<EventStream<int>>::Sink::create();
        std::array<std::shared_ptr<EventStream<int>::Sink>, 4> inners;
        for (auto& inner : inners) inner = EventStream<int>::Sink::create();
        std::atomic<int> delivered{0};
        auto token = outer->switchToLatest().observe([&](int) { delivered.fetch_add(1); });

        std::thread switcher([&] {
            for (int i = 0; i < 40; ++i)
                outer->send(inners[static_cast<std::size_t>(i % 4)]->eventStream());
        });
        std::thread sender([&] {
            for (int i = 0; i < 40; ++i) inners[static_cast<std::size_t>(i % 4)]->send(i);
        });
        if (round % 2 == 0) std::this_thread::yield();
        token->cancel();
        switcher.join();
        sender.join();

        // Whatever arrived when, nothing stays subscribed after the cancel.
        EXPECT_FALSE(outer->isObserved());
        for (const auto& inner : inners) EXPECT_FALSE(inner->isObserved());
        int before = delivered.load();
        for (const auto& inner : inners) inner->send(0);
        EXPECT_EQ(delivered.load(), before);
    }
    EXPECT_EQ(reports.count(), 0u);  // every token cancelled exactly once, none dropped
}

TEST(EventStreamStress, DuplicateFilterPassesARepeatedValueOnceAcrossThreads) {
    auto sink = EventStream<int>::Sink::create();
    std::atomic<int> delivered{0};
    auto token = sink->filterDuplicateEvents().observe([&](int) { delivered.fetch_add(1); });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i) sink->send(7);
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(delivered.load(), 1);
    token->cancel();
}

}  // namespace
}  // namespace mirels
