#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

#include "mirels/queries/ValueCombiner.h"
#include "queries/QueryTestSupport.h"

namespace mirels {
namespace {

using testing::NameQuery;
using testing::TableResolver;

static_assert(MergeOperation<FirstValueMerge<int>> && MergeOperation<ConcatenationMerge<int>> &&
              MergeOperation<UnionMerge<std::set<int>>> && MergeOperation<OrderedUnionMerge<int>> &&
              MergeOperation<SumMerge<double>> && MergeOperation<LogicalOrMerge> &&
              MergeOperation<NilMerge<int>> && MergeOperation<FutureMerge<SumMerge<int>>>);

TEST(ValueCombiners, MergeValuesInOrder) {
    EXPECT_EQ(FirstValueMerge<int>::perform({}), std::nullopt);
    EXPECT_EQ(FirstValueMerge<int>::perform({4, 5}), 4);
    EXPECT_EQ(ConcatenationMerge<int>::perform({{1, 2}, {3}}), (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(ConcatenationMerge<int>::perform({}).empty());
    EXPECT_EQ(UnionMerge<std::set<int>>::perform({{3, 1}, {1, 2}}), (std::set<int>{1, 2, 3}));
    EXPECT_EQ(UnionMerge<std::unordered_set<int>>::perform({}).size(), 0U);
    OrderedSet<std::string> united =
        OrderedUnionMerge<std::string>::perform({{"b", "a"}, {"a", "c"}});
    EXPECT_EQ(std::vector<std::string>(united.begin(), united.end()),
              (std::vector<std::string>{"b", "a", "c"}));
    EXPECT_EQ(SumMerge<int>::perform({}), 0);
    EXPECT_EQ(SumMerge<double>::perform({0.5, 1.25}), 1.75);
    EXPECT_EQ(SumMerge<std::uint8_t>::perform({200, 100}), 44);  // the type's own wrap-around
    EXPECT_FALSE(LogicalOrMerge::perform({}));
    EXPECT_FALSE(LogicalOrMerge::perform({false, false}));
    EXPECT_TRUE(LogicalOrMerge::perform({false, true, false}));
}

TEST(ValueCombiners, FutureMergeWaitsForEveryAnswerAndPassesFailuresThrough) {
    auto [one, onePromise] = Future<int>::create();
    Future<int> merged = FutureMerge<SumMerge<int>>::perform(
        {one, Future<int>::succeeded(2), Future<int>::succeeded(3)});
    EXPECT_TRUE(merged.recentStateSnapshot().isRunning());
    onePromise.succeed(1);
    EXPECT_EQ(merged.succeededValue(), 6);

    Future<std::vector<int>> joined = FutureMerge<ConcatenationMerge<int>>::perform(
        {Future<std::vector<int>>::succeeded({1}), Future<std::vector<int>>::succeeded({2, 3})});
    EXPECT_EQ(joined.succeededValue(), (std::vector<int>{1, 2, 3}));

    Future<int> failed = FutureMerge<SumMerge<int>>::perform(
        {Future<int>::succeeded(1), Future<int>::failed(Error(std::runtime_error("second"))),
         Future<int>::failed(Error(std::runtime_error("third")))});
    ASSERT_TRUE(failed.recentStateSnapshot().failedError().has_value());
    EXPECT_STREQ(failed.recentStateSnapshot().failedError()->description().c_str(), "second");

    auto [pending, pendingPromise] = Future<int>::create();
    Future<int> canceled = FutureMerge<SumMerge<int>>::perform({pending});
    canceled.cancel();
    EXPECT_TRUE(canceled.isCanceled());
    EXPECT_TRUE(pendingPromise.isCanceled());  // canceling the result cancels every answer

    EXPECT_EQ(FutureMerge<SumMerge<int>>::perform({}).succeededValue(), 0);
}

TEST(ValueCombiners, PerformForAQueryAsksTheManagerAndFirstValueStopsAtTheFirstAnswer) {
    auto parent = QueryManager::create(nullptr, {TableResolver::create(resolve<NameQuery>([] {
                                           return std::optional<std::string>("parent");
                                       }))});
    auto late = TableResolver::create(
        resolve<NameQuery>([] { return std::optional<std::string>("late"); }));
    auto child = QueryManager::create(parent, {late});
    EXPECT_EQ(FirstValueMerge<std::string>::perform(NameQuery{}, *child), "parent");
    EXPECT_EQ(late->requests.load(), 0);
    EXPECT_EQ(performMerge<FirstValueMerge<std::string>>(NameQuery{}, *child), "parent");
    child->setDelegateQueryManager(nullptr);
    EXPECT_EQ(FirstValueMerge<std::string>::perform(NameQuery{}, *child), "late");
}

TEST(ValueCombinersDeathTest, NilMergeStopsTheProcess) {
    EXPECT_DEATH(NilMerge<int>::perform({1, 2}), "NilMerge should never actually perform a merge");
}

}  // namespace
}  // namespace mirels
