#include <gtest/gtest.h>

#include <vector>

#include "mirels/core/AutoCancelling.h"
#include "mirels/core/CancellationToken.h"
#include "support/SoftAssertions.h"

namespace mirels {
namespace {

using testing::SoftAssertionRecorder;

TEST(CancellationToken, CancelRunsTheActionAndASecondCancelReportsAndRunsItAgain) {
    SoftAssertionRecorder reports;
    int runs = 0;
    auto token = CancellationToken::create([&] { ++runs; });
    EXPECT_EQ(token->initializationCallsite().line(), static_cast<std::size_t>(__LINE__ - 1));
    EXPECT_FALSE(token->isCancelled());
    token->cancel();
    EXPECT_TRUE(token->isCancelled());
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(reports.count(), 0u);
    token->cancel();
    EXPECT_EQ(runs, 2);
    ASSERT_EQ(reports.count(), 1u);
    EXPECT_TRUE(reports.files()[0].starts_with("CancellationToken.cpp:")) << reports.files()[0];
}

TEST(CancellationToken, DroppingAnUncancelledTokenReportsAndNeverRunsTheAction) {
    SoftAssertionRecorder reports;
    int runs = 0;
    auto captured = std::make_shared<int>(0);
    {
        auto token = CancellationToken::create([&runs, captured] { ++runs; });
        EXPECT_EQ(captured.use_count(), 2);
    }
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(captured.use_count(), 1);  // the action was released
    EXPECT_EQ(reports.count(), 1u);
}

TEST(AutoCancelling, ReleasingCancelsEveryHeldTokenOnce) {
    SoftAssertionRecorder reports;
    std::vector<int> runs(3, 0);
    std::shared_ptr<CancellationToken> alreadyCancelled;
    {
        AutoCancelling holder;
        for (int i = 0; i < 3; ++i) {
            auto token = CancellationToken::create([&runs, i] { ++runs[static_cast<size_t>(i)]; });
            store(token, holder.wrappedValue());
            if (i == 2) alreadyCancelled = token;
        }
        alreadyCancelled->cancel();
        EXPECT_EQ(holder.wrappedValue().size(), 3u);
    }
    EXPECT_EQ(runs, (std::vector<int>{1, 1, 2}));
    EXPECT_EQ(reports.count(), 1u);  // only the second cancel of the pre-cancelled token
}

TEST(AutoCancelling, ProjectedTokenEmptiesTheHolderAndCancelsWhatItHeld) {
    SoftAssertionRecorder reports;
    AutoCancelling holder;
    auto first = holder.projectedValue();
    auto second = holder.projectedValue();
    EXPECT_NE(first, second);
    EXPECT_STREQ(first->initializationCallsite().function(), "projectedValue");
    first->cancel();  // empty holder: nothing else happens
    EXPECT_EQ(reports.count(), 0u);

    int runs = 0;
    store(CancellationToken::create([&] { ++runs; }), holder);
    store(CancellationToken::create([&] { ++runs; }), holder);
    second->cancel();
    EXPECT_EQ(runs, 2);
    EXPECT_TRUE(holder.wrappedValue().empty());

    // Still usable afterwards, and a projected token outliving its holder is harmless.
    std::shared_ptr<CancellationToken> late;
    {
        AutoCancelling shortLived;
        store(CancellationToken::create([&] { ++runs; }), shortLived);
        late = shortLived.projectedValue();
    }
    EXPECT_EQ(runs, 3);
    late->cancel();
    EXPECT_EQ(runs, 3);
    EXPECT_EQ(reports.count(), 0u);
}

}  // namespace
}  // namespace mirels
