#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "mirels/events/SingleFireEvent.h"
#include "support/SoftAssertions.h"

namespace mirels {
namespace {

using testing::SoftAssertionRecorder;

TEST(SingleFireEvent, FiringRunsWaitingObserversOnceInOrderAndLateOnesAtOnce) {
    SoftAssertionRecorder reports;
    auto event = SingleFireEvent::create();
    Future<void> future = event->future();
    std::vector<std::string> calls;
    auto first = event->observe([&] { calls.push_back("first"); });
    auto removed = event->observe([&] { calls.push_back("removed"); });
    event->observeUntilFiredOrCanceled([&] { calls.push_back("kept"); });
    auto last = event->observe([&] { calls.push_back("last"); });
    removed->cancel();

    event->fire();
    event->fire();
    event->cancel();
    EXPECT_EQ(calls, (std::vector<std::string>{"first", "kept", "last"}));
    EXPECT_TRUE(event->hasFired());
    EXPECT_TRUE(future.object()->hasFinishedSuccessfully());
    EXPECT_EQ(event->future(), future);
    EXPECT_EQ(event->observe([&] { calls.push_back("late"); }), nullptr);
    EXPECT_EQ(calls.back(), "late");

    first->cancel();  // after the firing: the normal end of a registration, not reported
    last->cancel();
    auto firedBeforeAsked = SingleFireEvent::create();
    firedBeforeAsked->fire();
    EXPECT_TRUE(firedBeforeAsked->future().object()->hasFinishedSuccessfully());
    EXPECT_EQ(reports.count(), 0U);
}

TEST(SingleFireEvent, CancelingRunsNoObserverAndCancelsKeptTokensThenFuture) {
    SoftAssertionRecorder reports;
    auto event = SingleFireEvent::create();
    int observed = 0;
    auto token = event->observe([&] { ++observed; });
    std::vector<std::string> order;
    event->keepUntilFiredOrCanceled(CancellationToken::create([&] { order.push_back("token"); }));
    event->future().observeCancelation(
        [&](Callsite callsite) { order.push_back(std::string("future ") + callsite.function()); });

    event->cancel();
    event->fire();
    EXPECT_EQ(observed, 0);
    EXPECT_FALSE(event->hasFired());
    EXPECT_EQ(order, (std::vector<std::string>{"token", "future cancel()"}));
    // Deliberately, a late observer of a canceled event is called at once too, and a token
    // handed over late is canceled at once.
    EXPECT_EQ(event->observe([&] { ++observed; }), nullptr);
    EXPECT_EQ(observed, 1);
    event->keepUntilFiredOrCanceled(CancellationToken::create([&] { order.push_back("late"); }));
    EXPECT_EQ(order.back(), "late");
    token->cancel();
    EXPECT_EQ(reports.count(), 0U);
}

// fire() and cancel() race while a third thread registers observers and unregisters some:
// one of fire and cancel wins, and each observer runs once or never.
TEST(SingleFireEventStress, FireAndCancelRaceLetsOneWinAndObserversRunOnceOrNever) {
    SoftAssertionRecorder reports;
    constexpr int observers = 8;
    for (int round = 0; round < 400; ++round) {
        auto event = SingleFireEvent::create();
        std::vector<std::atomic<int>> runs(observers);
        std::vector<std::shared_ptr<CancellationToken>> tokens(observers);
        std::atomic<bool> go{false};
        auto start = [&](auto body) {
            return std::thread([&go, body] {
                while (!go.load()) {
                }
                body();
            });
        };
        std::thread registrar = start([&] {
            for (int i = 0; i < observers; ++i) {
                tokens[i] = event->observe([&runs, i] { runs[i].fetch_add(1); });
                if (i % 3 == 0 && tokens[i]) std::exchange(tokens[i], nullptr)->cancel();
            }
        });
        std::thread firer = start([&] { event->fire(); });
        std::thread canceler = start([&] { event->cancel(); });
        go.store(true);
        for (std::thread* thread : {&registrar, &firer, &canceler}) thread->join();

        bool fired = event->hasFired();
        EXPECT_EQ(event->future().object()->hasFinishedSuccessfully(), fired);
        for (int i = 0; i < observers; ++i) {
            EXPECT_LE(runs[i].load(), 1);
            // With a token it was registered in time, and ran exactly when the event fired.
            if (tokens[i]) {
                EXPECT_EQ(runs[i].load(), fired ? 1 : 0);
                tokens[i]->cancel();
            }
        }
    }
    EXPECT_EQ(reports.count(), 0U);
}

}  // namespace
}  // namespace mirels
