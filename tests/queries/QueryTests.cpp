#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "execution/Waiting.h"
#include "mirels/queries/Query.h"
#include "mirels/queries/QueryManager.h"
#include "mirels/queries/ValueCombiner.h"
#include "queries/QueryTestSupport.h"

namespace mirels {
namespace {

using testing::CountQuery;
using testing::NameQuery;
using testing::TableResolver;
using testing::TagsQuery;

// A query type that cannot be changed, made a query through the traits.
struct ForeignQuestion {
    int depth = 0;
};

// A query with the operations as members.
struct ThemeQuery : QueryType<ThemeQuery, std::string, FirstValueMerge<std::string>> {
    int screen = 0;
};

}  // namespace

template <>
struct QueryTraits<ForeignQuestion> {
    using Primitive = int;
    using MergeStrategy = SumMerge<int>;
};

namespace {

static_assert(Query<NameQuery> && Query<ForeignQuestion> && Query<ThemeQuery>);
static_assert(!Query<int>);
static_assert(HashableQuery<NameQuery> && !HashableQuery<TagsQuery>);
static_assert(FutureQuery<CountQuery> && !FutureQuery<NameQuery>);
static_assert(QueryResolverProvider<EmptyQueryResolverProvider>);

TEST(QueryResolutions, ProvidersOfEveryShapeAnswerPerQueryValue) {
    auto manager = QueryManager::create();
    int lazyEvaluations = 0;
    QueryResolutions table{
        resolve<NameQuery>([](const NameQuery& query) -> std::optional<std::string> {
            if (query.id < 0) return std::nullopt;
            return "name " + std::to_string(query.id);
        }),
        resolve<TagsQuery>([] { return std::optional<std::vector<std::string>>({"t"}); }),
        resolve<ForeignQuestion>([](const ForeignQuestion& q, QueryManager& asking) {
            // A provider sees the manager that asks, and may ask it other queries.
            return std::optional<int>(q.depth +
                                      static_cast<int>(asking.allValues(TagsQuery{}).size()));
        }),
        ThemeQuery::resolveWith([&] {
            ++lazyEvaluations;
            return std::string("dark");
        }),
    };
    EXPECT_EQ(table.count(), 4U);
    EXPECT_EQ(table.value(NameQuery{3}, *manager), "name 3");
    EXPECT_EQ(table.value(NameQuery{-1}, *manager), std::nullopt);
    EXPECT_EQ(table.value(TagsQuery{}, *manager), std::vector<std::string>{"t"});
    EXPECT_EQ(table.value(ForeignQuestion{4}, *manager), 4);  // the manager itself has no answers
    EXPECT_EQ(lazyEvaluations, 0);
    EXPECT_EQ(table.value(ThemeQuery{}, *manager), "dark");
    EXPECT_EQ(table.value(ThemeQuery{}, *manager), "dark");
    EXPECT_EQ(lazyEvaluations, 2);  // computed at each request

    // No entry for a type is an absent answer, not a failure.
    EXPECT_EQ(QueryResolutions::empty().value(NameQuery{1}, *manager), std::nullopt);
    EXPECT_TRUE(QueryResolutions::empty().isEmpty());
    EXPECT_EQ(&table.resolutions(), &table);
}

TEST(QueryResolutions, MergingAnswersBothTypesAndTheLaterEntryWinsForOneType) {
    auto manager = QueryManager::create();
    QueryResolutions names = resolve<NameQuery>([] { return std::optional<std::string>("first"); });
    QueryResolutions tags =
        resolve<TagsQuery>([] { return std::optional<std::vector<std::string>>({"x"}); });
    QueryResolutions merged = names;
    merged.merge(tags);
    EXPECT_EQ(merged.value(NameQuery{}, *manager), "first");
    EXPECT_EQ(merged.value(TagsQuery{}, *manager), std::vector<std::string>{"x"});
    EXPECT_FALSE(names.contains<TagsQuery>());  // a copy is not changed by merging into another

    QueryResolutions later = resolve<NameQuery>([] { return std::optional<std::string>("later"); });
    EXPECT_EQ(QueryResolutionsBuilder::buildBlock(names, tags, later).value(NameQuery{}, *manager),
              "later");
    EXPECT_EQ((QueryResolutions{later, names}).value(NameQuery{}, *manager), "first");
    EXPECT_EQ(QueryResolutionsBuilder::buildBlock().count(), 0U);
}

TEST(QueryResolver, AbsentAndVanishedResolversContributeNothing) {
    auto manager = QueryManager::create();
    std::shared_ptr<TableResolver> none;
    EXPECT_TRUE(resolutions(none).isEmpty());
    EXPECT_TRUE(EmptyQueryResolverProvider::queryResolvers().empty());

    auto resolver = TableResolver::create(
        resolve<NameQuery>([] { return std::optional<std::string>("here"); }));
    Weak<TableResolver> weak(resolver);
    EXPECT_EQ(resolutions(weak).value(NameQuery{}, *manager), "here");
    auto weakResolver = WeakQueryResolver::create(resolver);
    manager->setResolvers({weakResolver, nullptr});
    EXPECT_EQ(manager->firstValue(NameQuery{}), "here");
    EXPECT_TRUE(weakResolver->queryResolverPublisher().has_value());
    resolver.reset();
    // The manager's queue rewires resolver announcements after setResolvers and holds the
    // resolver for that moment; once it lets go, the weakly held resolver is gone.
    ASSERT_TRUE(testing::eventually([&] { return resolutions(weak).isEmpty(); }));
    EXPECT_EQ(manager->firstValue(NameQuery{}), std::nullopt);
    EXPECT_TRUE(manager->allValues(NameQuery{}).empty());
    EXPECT_FALSE(weakResolver->queryResolverPublisher().has_value());
}

TEST(QueryResolver, ResolutionsAreAskedAfreshAtEveryRequest) {
    auto resolver =
        TableResolver::create(resolve<NameQuery>([] { return std::optional<std::string>("old"); }));
    auto manager = QueryManager::create(nullptr, {resolver});
    EXPECT_EQ(manager->firstValue(NameQuery{}), "old");
    resolver->setTable(resolve<NameQuery>([] { return std::optional<std::string>("new"); }));
    EXPECT_EQ(manager->firstValue(NameQuery{}), "new");
    EXPECT_EQ(resolver->requests.load(), 2);
}

TEST(Query, UncachedValueIsFreshAndValueSharesPendingFuturesOfHashableQueries) {
    int performs = 0;
    std::vector<Promise<int>> promises;
    auto resolver = TableResolver::create(QueryResolutions{
        resolve<CountQuery>([&](const CountQuery&) {
            ++performs;
            auto [future, promise] = Future<int>::create();
            promises.push_back(promise);
            return std::optional<Future<int>>(future);
        }),
        resolve<NameQuery>([&] {
            ++performs;
            return std::optional<std::string>("n");
        }),
    });
    auto manager = QueryManager::create(nullptr, {resolver});

    Future<int> a = uncachedValue(CountQuery{1}, *manager);
    Future<int> b = uncachedValue(CountQuery{1}, *manager);
    EXPECT_NE(a, b);
    Future<int> c = value(CountQuery{1}, *manager);
    Future<int> d = value(CountQuery{1}, *manager);
    EXPECT_EQ(c, d);
    EXPECT_EQ(performs, 3);
    promises.back().succeed(5);
    EXPECT_EQ(d.succeededValue(), 5);

    // Not a future: always computed afresh.
    EXPECT_EQ(value(NameQuery{}, *manager), "n");
    EXPECT_EQ(value(NameQuery{}, *manager), "n");
    EXPECT_EQ(performs, 5);

    ThemeQuery theme;
    EXPECT_EQ(theme.value(*manager), std::nullopt);
    EXPECT_EQ(theme.uncachedValue(*manager), std::nullopt);
    EXPECT_EQ(theme.debugDescription(), "ThemeQuery");
    EXPECT_EQ(debugDescription(NameQuery{}), "NameQuery");
    for (auto& promise : promises) promise.cancel();
}

}  // namespace
}  // namespace mirels
