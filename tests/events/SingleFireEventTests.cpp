#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "mirels/events/ObjcSingleFireEvent.h"
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
    ASSERT_NE(first, nullptr);
    removed->cancel();

    EXPECT_FALSE(future.object()->terminationIfFinished());
    event->fire();
    event->fire();
    event->cancel();
    EXPECT_EQ(calls, (std::vector<std::string>{"first", "kept", "last"}));
    EXPECT_TRUE(event->hasFired());
    EXPECT_TRUE(future.object()->hasFinishedSuccessfully());
    EXPECT_EQ(event->future(), future);

    // A late observer runs at once and gets no token.
    EXPECT_EQ(event->observe([&] { calls.push_back("late"); }), nullptr);
    event->observeUntilFiredOrCanceled([&] { calls.push_back("late kept"); });
    EXPECT_EQ(calls.back(), "late kept");
    EXPECT_EQ(calls.size(), 5U);

    // Cancelling a token after the firing is the normal end of a registration.
    first->cancel();
    last->cancel();
    EXPECT_EQ(reports.count(), 0U);
}

TEST(SingleFireEvent, CancelingRunsNoObserverAndCancelsFutureAndKeptTokens) {
    SoftAssertionRecorder reports;
    auto event = SingleFireEvent::create();
    Future<void> future = event->future();
    int observed = 0;
    auto token = event->observe([&] { ++observed; });
    std::vector<int> tokenOrder;
    event->keepUntilFiredOrCanceled(CancellationToken::create([&] { tokenOrder.push_back(1); }));
    event->keepUntilFiredOrCanceled(CancellationToken::create([&] { tokenOrder.push_back(2); }));
    bool futureCanceledAfterTokens = false;
    future.observeCancelation([&](Callsite callsite) {
        futureCanceledAfterTokens = tokenOrder.size() == 2;
        EXPECT_STREQ(callsite.function(), "cancel()");
    });

    event->cancel();
    event->fire();
    EXPECT_EQ(observed, 0);
    EXPECT_FALSE(event->hasFired());
    EXPECT_EQ(tokenOrder, (std::vector<int>{1, 2}));
    EXPECT_TRUE(futureCanceledAfterTokens);

    // Deliberately, a late observer of a canceled event is called at once too.
    EXPECT_EQ(event->observe([&] { ++observed; }), nullptr);
    EXPECT_EQ(observed, 1);
    // A token handed over after the end is canceled at once.
    event->keepUntilFiredOrCanceled(CancellationToken::create([&] { tokenOrder.push_back(3); }));
    EXPECT_EQ(tokenOrder.size(), 3U);
    token->cancel();
    EXPECT_EQ(reports.count(), 0U);
}

TEST(SingleFireEvent, FutureRequestedAfterTheEndIsFinishedAlike) {
    auto fired = SingleFireEvent::create();
    fired->fire();
    EXPECT_TRUE(fired->future().object()->hasFinishedSuccessfully());
    EXPECT_EQ(fired->future(), fired->future());
    EXPECT_STREQ(fired->future().object()->initializationCallsite().function(), "init()");

    auto canceled = SingleFireEvent::create();
    canceled->cancel();
    EXPECT_TRUE(canceled->future().object()->isCanceled());
}

TEST(SingleFireEvent, KeptTokenCanceledElsewhereIsReportedByTheToken) {
    SoftAssertionRecorder reports;
    auto event = SingleFireEvent::create();
    int runs = 0;
    auto token = CancellationToken::create([&] { ++runs; });
    event->keepUntilFiredOrCanceled(token);
    token->cancel();
    event->fire();
    EXPECT_EQ(runs, 2);
    ASSERT_EQ(reports.count(), 1U);
}

TEST(SingleFireEvent, ObjcFormForwardsToTheEvent) {
    QKObjCSingleFireEvent event;
    int observed = 0;
    event.addObserver([&] { ++observed; });
    EXPECT_FALSE(event.hasFired());
    event.fire();
    EXPECT_TRUE(event.hasFired());
    event.addObserver([&] { ++observed; });
    EXPECT_EQ(observed, 2);
}

// Firing and canceling race from two threads while a third registers and unregisters observers:
// exactly one of fire and cancel wins, and every observer runs at most once (exactly once when
// fire won and the observer was not unregistered first).
TEST(SingleFireEventStress, FireAndCancelRaceLetsOneWinAndObserversRunOnceOrNever) {
    SoftAssertionRecorder reports;
    constexpr int rounds = 400;
    constexpr int observersPerRound = 8;
    int fires = 0;
    for (int round = 0; round < rounds; ++round) {
        auto event = SingleFireEvent::create();
        std::vector<std::atomic<int>> runs(observersPerRound);
        std::vector<std::shared_ptr<CancellationToken>> tokens(observersPerRound);
        std::atomic<bool> go{false};
        std::thread registrar([&] {
            while (!go.load()) {
            }
            for (int i = 0; i < observersPerRound; ++i) {
                tokens[i] = event->observe([&runs, i] { runs[i].fetch_add(1); });
                if (i % 3 == 0 && tokens[i]) {
                    tokens[i]->cancel();
                    tokens[i] = nullptr;
                }
            }
        });
        std::thread firer([&] {
            while (!go.load()) {
            }
            event->fire();
        });
        std::thread canceler([&] {
            while (!go.load()) {
            }
            event->cancel();
        });
        go.store(true);
        registrar.join();
        firer.join();
        canceler.join();

        bool didFire = event->hasFired();
        fires += didFire ? 1 : 0;
        EXPECT_EQ(event->future().object()->hasFinishedSuccessfully(), didFire);
        for (int i = 0; i < observersPerRound; ++i) {
            int count = runs[i].load();
            EXPECT_LE(count, 1);
            // An observer that got a token was registered before the end: it ran exactly when
            // the event fired. One without a token was called at once.
            if (tokens[i]) {
                EXPECT_EQ(count, didFire ? 1 : 0);
                tokens[i]->cancel();
            }
        }
    }
    EXPECT_EQ(reports.count(), 0U);
    RecordProperty("fires", fires);
}

}  // namespace
}  // namespace mirels
