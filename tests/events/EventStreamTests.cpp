#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mirels/events/EventStream.h"
#include "mirels/events/Observable.h"
#include "mirels/events/SubscriberCollection.h"
#include "support/SoftAssertions.h"

namespace mirels {
namespace {

using testing::SoftAssertionRecorder;
using IntSink = EventStream<int>::Sink;

TEST(EventStream, DeliversInSubscriptionOrderFromASnapshot) {
    SoftAssertionRecorder reports;
    auto sink = IntSink::create();
    std::vector<std::string> log;
    std::shared_ptr<CancellationToken> selfCancelling, late, third;

    auto first = sink->observe([&](int e) {
        log.push_back("first " + std::to_string(e));
        if (e == 1) {
            // Subscribing during delivery: the newcomer gets only later events.
            late = sink->observe([&](int e2) { log.push_back("late " + std::to_string(e2)); });
            // Cancelling another subscriber of the snapshot: it still gets this event.
            third->cancel();
        }
    });
    selfCancelling = sink->observe([&](int e) {
        log.push_back("self " + std::to_string(e));
        selfCancelling->cancel();  // gets this event and no later one
    });
    third = sink->observe([&](int e) { log.push_back("third " + std::to_string(e)); });
    EXPECT_TRUE(sink->isObserved());

    sink->send(1);
    sink->send(2);
    EXPECT_EQ(log, (std::vector<std::string>{"first 1", "self 1", "third 1", "first 2", "late 2"}));

    first->cancel();
    late->cancel();
    EXPECT_FALSE(sink->isObserved());
    EXPECT_EQ(reports.count(), 0u);
}

TEST(EventStream, OperatorsTransformFilterAndMerge) {
    auto numbers = IntSink::create();
    auto words = EventStream<std::string>::Sink::create();
    auto nothing = EventStream<void>::Sink::create();
    auto maybe = EventStream<std::optional<int>>::Sink::create();
    std::vector<std::string> log;
    auto record = [&](const std::string& s) { log.push_back(s); };

    std::vector<std::shared_ptr<CancellationToken>> tokens{
        numbers->map([](int v) { return std::to_string(v * 10); })
            .merged(*words)
            .filter([](const std::string& s) { return s != "20"; })
            .observe(record),
        numbers->compactMap([](int v) { return v % 2 ? std::optional(v) : std::nullopt; })
            .map([](int v) { return "odd " + std::to_string(v); })
            .observe(record),
        nothing->map([] { return std::string("ping"); }).observe(record),
        maybe->replacingNil(-1)
            .map([](int v) { return "maybe " + std::to_string(v); })
            .observe(record),
        EventStream<int>::merge().observe([&](int) { record("never"); }),
        EventStream<int>::empty().observe([&](int) { record("never"); }),
    };

    numbers->send(1);
    numbers->send(2);
    words->send("word");
    nothing->send();
    maybe->send(std::nullopt);
    maybe->send(4);
    EXPECT_EQ(log,
              (std::vector<std::string>{"10", "odd 1", "word", "ping", "maybe -1", "maybe 4"}));
    for (auto& token : tokens) token->cancel();
    EXPECT_FALSE(numbers->isObserved());
    EXPECT_FALSE(words->isObserved());
}

TEST(EventStream, FilterDuplicateEventsKeepsALastEventPerObservation) {
    auto sink = IntSink::create();
    auto distinct = sink->filterDuplicateEvents();
    std::vector<int> a, b;
    auto tokenA = distinct.observe([&](int v) { a.push_back(v); });
    for (int v : {1, 1, 2, 2}) sink->send(v);
    auto tokenB = distinct.observe([&](int v) { b.push_back(v); });
    sink->send(2);
    sink->send(1);
    EXPECT_EQ(a, (std::vector{1, 2, 1}));
    EXPECT_EQ(b, (std::vector{2, 1}));  // its own state: the first event always passes
    tokenA->cancel();
    tokenB->cancel();
}

TEST(EventStream, SwitchToLatestFollowsOnlyTheNewestInnerStream) {
    SoftAssertionRecorder reports;
    auto outer = EventStream<EventStream<int>>::Sink::create();
    auto first = IntSink::create();
    auto second = IntSink::create();
    std::vector<int> received;
    auto token = outer->switchToLatest().observe([&](int v) { received.push_back(v); });

    outer->send(first->eventStream());
    first->send(1);
    outer->send(second->eventStream());
    first->send(2);  // no longer followed
    second->send(3);
    EXPECT_FALSE(first->isObserved());

    token->cancel();
    second->send(4);
    outer->send(first->eventStream());
    first->send(5);
    EXPECT_EQ(received, (std::vector{1, 3}));
    EXPECT_FALSE(outer->isObserved());
    EXPECT_FALSE(second->isObserved());
    EXPECT_EQ(reports.count(), 0u);  // every inner token was cancelled exactly once
}

TEST(EventStream, OnObserveCanReplayToTheNewcomerAlone) {
    auto sink = IntSink::create();
    auto replaying = sink->onObserve([](const SharedEventHandler<int>& deliver) { deliver(0); });
    std::vector<int> a, b;
    auto tokenA = replaying.observe([&](int v) { a.push_back(v); });
    sink->send(1);
    auto tokenB = replaying.observe([&](int v) { b.push_back(v); });
    sink->send(2);
    EXPECT_EQ(a, (std::vector{0, 1, 2}));
    EXPECT_EQ(b, (std::vector{0, 2}));
    tokenA->cancel();
    tokenB->cancel();
}

TEST(Observable, DeliversTheCurrentValueAtOnceAndEveryWrite) {
    auto observable = Observable<std::string>::create("initial");
    std::vector<std::string> seen;
    auto token =
        observable->projectedValue().observe([&](const std::string& v) { seen.push_back(v); });
    observable->setWrappedValue("next");
    observable->setWrappedValue("next");  // an equal value is sent again
    observable->modifyWrappedValue([](std::string& v) { v += "!"; });
    EXPECT_EQ(observable->wrappedValue(), "next!");
    EXPECT_EQ(seen, (std::vector<std::string>{"initial", "next", "next", "next!"}));
    token->cancel();
}

TEST(EventStream, SubscriptionsDoNotKeepTheSinkOrEachOtherAlive) {
    SoftAssertionRecorder reports;
    std::weak_ptr<IntSink> weakSink;
    auto capture = std::make_shared<int>(0);
    std::shared_ptr<CancellationToken> direct, chained;
    {
        auto sink = IntSink::create();
        weakSink = sink;
        direct = sink->observe([capture](int) {});
        chained = sink->map([](int v) { return v; })
                      .filterDuplicateEvents()
                      .merged(EventStream<int>::empty())
                      .observe([capture](int) {});
        EXPECT_EQ(capture.use_count(), 3);
    }
    // The producer and every stream value are gone: the sink is destroyed while subscribed.
    EXPECT_TRUE(weakSink.expired());
    EXPECT_EQ(capture.use_count(), 1);
    direct->cancel();  // harmless now
    chained->cancel();
    EXPECT_EQ(reports.count(), 0u);

    // A cancelled subscription releases its handler.
    auto sink = IntSink::create();
    auto token = sink->observe([capture](int) {});
    token->cancel();
    EXPECT_EQ(capture.use_count(), 1);
}

/// Runs a function when destroyed.
struct OnDestroy {
    std::function<void()> action;
    ~OnDestroy() { action(); }
};

TEST(EventStream, ARemovedHandlerIsDestroyedOutsideTheSinksLock) {
    auto sink = IntSink::create();
    bool ran = false;
    auto guard = std::make_shared<OnDestroy>(OnDestroy{[&] {
        // Would deadlock if the handler were destroyed under the sink's lock.
        sink->observe([](int) {})->cancel();
        ran = true;
    }});
    auto token = sink->observe([guard](int) {});
    guard.reset();
    token->cancel();
    EXPECT_TRUE(ran);
}

// A handler released by the sink's end may cancel its own token and use another sink from its
// destructor: the sink lets go of handlers only after it has cut every subscription off.
/// Runs an action when destroyed; made in place, so only the shared copy runs it.
struct SinkEndProbe {
    explicit SinkEndProbe(std::function<void()> action) : action(std::move(action)) {}
    SinkEndProbe(const SinkEndProbe&) = delete;
    SinkEndProbe& operator=(const SinkEndProbe&) = delete;
    ~SinkEndProbe() { action(); }
    std::function<void()> action;
};

TEST(EventStream, HandlersReleasedByTheSinksEndMayCancelTheirTokens) {
    SoftAssertionRecorder reports;
    auto other = IntSink::create();
    std::shared_ptr<CancellationToken> token;
    bool ran = false;
    {
        auto sink = IntSink::create();
        auto guard = std::make_shared<SinkEndProbe>([&] {
            token->cancel();
            other->observe([](int) {})->cancel();
            ran = true;
        });
        token = sink->observe([guard](int) {});
    }
    EXPECT_TRUE(ran);
    EXPECT_TRUE(token->isCancelled());
    EXPECT_EQ(reports.count(), 0u);
}

// Cancels from every position of the table, from inside a send that still holds the older
// table, and twice: the remaining subscribers keep their order, the held snapshot is untouched,
// and a second cancel removes nothing more.
TEST(EventStream, CancellingFromAnyPositionKeepsTheOthersInOrder) {
    SoftAssertionRecorder reports;
    auto sink = IntSink::create();
    std::vector<std::string> log;
    std::vector<std::shared_ptr<CancellationToken>> tokens(6);
    for (int i = 0; i < 6; ++i) {
        tokens[static_cast<std::size_t>(i)] = sink->observe([&, i](int e) {
            log.push_back(std::to_string(i) + ":" + std::to_string(e));
            // The first subscriber cancels every other one during the first send.
            if (i == 0 && e == 1) {
                for (int other : {5, 2, 3}) tokens[static_cast<std::size_t>(other)]->cancel();
            }
        });
    }
    sink->send(1);  // the snapshot taken before the cancels still reaches 2, 3 and 5
    sink->send(2);
    EXPECT_EQ(log, (std::vector<std::string>{"0:1", "1:1", "2:1", "3:1", "4:1", "5:1", "0:2", "1:2",
                                             "4:2"}));
    tokens[2]->cancel();
    EXPECT_EQ(reports.count(), 1u);  // the second cancel is reported
    auto newest = sink->observe([&](int e) { log.push_back("n:" + std::to_string(e)); });
    tokens[0]->cancel();
    log.clear();
    sink->send(3);
    EXPECT_EQ(log, (std::vector<std::string>{"1:3", "4:3", "n:3"}));
    for (int i : {1, 4}) tokens[static_cast<std::size_t>(i)]->cancel();
    newest->cancel();
    EXPECT_FALSE(sink->isObserved());
}

struct Owner {
    SubscriberCollection<std::function<void()>> observers;
};

TEST(SubscriberCollection, AddsThroughModifyOrAMemberAndNotifiesInOrder) {
    SoftAssertionRecorder reports;
    auto owner = std::make_shared<Owner>();
    std::vector<int> calls;
    auto one = SubscriberCollection<std::function<void()>>::add([&] { calls.push_back(1); },
                                                                &Owner::observers, owner);
    auto two = SubscriberCollection<std::function<void()>>::add(
        [&] { calls.push_back(2); },
        [owner](SubscriberCollection<std::function<void()>>::Edit& edit) {
            edit(owner->observers);
        });
    owner->observers.notify();
    EXPECT_EQ(calls, (std::vector{1, 2}));

    one->cancel();
    one->cancel();  // a second cancel is reported and removes nothing more
    EXPECT_EQ(reports.count(), 1u);
    owner->observers.notifyAll([](const std::function<void()>& f) { f(); });
    EXPECT_EQ(calls, (std::vector{1, 2, 2}));
    two->cancel();
    EXPECT_TRUE(owner->observers.isEmpty());

    SubscriberCollection<int> numbers;
    auto edit = [&numbers](SubscriberCollection<int>::Edit& e) { e(numbers); };
    std::vector<std::shared_ptr<CancellationToken>> tokens;
    for (int v : {3, 1, 2, 1}) tokens.push_back(SubscriberCollection<int>::add(v, edit));
    auto firstOne = numbers.subscribers().at(1).first;
    numbers.sort(std::less<>());
    EXPECT_EQ(std::vector<int>(numbers.all().begin(), numbers.all().end()),
              (std::vector{1, 1, 2, 3}));
    EXPECT_EQ(numbers.subscribers().at(0).first, firstOne);  // equal elements keep their order
    for (auto& token : tokens) token->cancel();
    EXPECT_EQ(numbers.count(), 0u);
}

}  // namespace
}  // namespace mirels
