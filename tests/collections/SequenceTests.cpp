#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <forward_list>
#include <list>
#include <map>
#include <optional>
#include <ranges>
#include <sstream>
#include <string>
#include <vector>

#include "mirels/collections/AdjacentPairsView.h"
#include "mirels/collections/ConcatView.h"
#include "mirels/collections/GeneratedSequence.h"
#include "mirels/collections/RecursiveSequence.h"

namespace mirels {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

template <class R>
auto collect(R&& range) {
    std::vector<std::ranges::range_value_t<R>> out;
    for (auto&& element : range) out.push_back(element);
    return out;
}

// What the views promise about their categories, checked where it is decided.
using Vector = std::vector<int>;
using VectorConcat = decltype(views::concat(std::declval<Vector&>(), std::declval<Vector&>()));
static_assert(std::ranges::view<VectorConcat> && std::ranges::random_access_range<VectorConcat> &&
              std::ranges::sized_range<VectorConcat> && std::ranges::common_range<VectorConcat>);
static_assert(std::ranges::random_access_range<const VectorConcat>);
static_assert(std::same_as<std::ranges::range_reference_t<VectorConcat>, int&>);
using ListConcat =
    decltype(views::concat(std::declval<Vector&>(), std::declval<std::list<int>&>()));
static_assert(std::ranges::bidirectional_range<ListConcat> &&
              !std::ranges::random_access_range<ListConcat>);
using MixedConcat =
    decltype(views::concat(std::declval<Vector&>(), std::declval<std::forward_list<long>&>()));
static_assert(std::ranges::forward_range<MixedConcat> &&
              !std::ranges::bidirectional_range<MixedConcat>);
static_assert(std::same_as<std::ranges::range_reference_t<MixedConcat>, long>);
using InputConcat = decltype(views::concat(
    std::declval<Vector&>(), std::views::istream<int>(std::declval<std::istream&>())));
static_assert(std::ranges::input_range<InputConcat> && !std::ranges::forward_range<InputConcat> &&
              !std::ranges::common_range<InputConcat>);

using Pairs = decltype(std::declval<Vector&>() | views::adjacentPairs);
static_assert(std::ranges::view<Pairs> && std::ranges::random_access_range<Pairs> &&
              std::ranges::sized_range<Pairs> && std::ranges::common_range<Pairs>);
static_assert(std::same_as<std::ranges::range_reference_t<Pairs>, AdjacentPair<int&>>);
static_assert(std::same_as<std::ranges::range_value_t<Pairs>, std::pair<int, int>>);
using ForwardPairs = decltype(std::declval<std::forward_list<int>&>() | views::adjacentPairs);
static_assert(std::ranges::forward_range<ForwardPairs> &&
              !std::ranges::bidirectional_range<ForwardPairs> &&
              !std::ranges::common_range<ForwardPairs>);

inline constexpr auto doubling = [](int x) { return 2 * x; };
using Infinite = decltype(views::generated(1, doubling));
static_assert(std::ranges::view<Infinite> && std::ranges::forward_range<Infinite> &&
              !std::ranges::common_range<Infinite>);
inline constexpr auto halving = [](int x) -> std::optional<int> {
    return x > 1 ? std::optional(x / 2) : std::nullopt;
};
static_assert(std::ranges::forward_range<decltype(views::generated(1, halving))>);
static_assert(std::ranges::forward_range<decltype(views::generated(1, halving) |
                                                  views::adjacentPairs)>);  // over const int&
inline constexpr auto nothing = []() -> std::optional<int> { return std::nullopt; };
using FromGenerator = decltype(views::generated(nothing));
static_assert(std::ranges::view<FromGenerator> && std::ranges::input_range<FromGenerator> &&
              !std::ranges::forward_range<FromGenerator>);

inline constexpr auto noChildren = [](int) { return std::vector<int>(); };
using DepthFirst = decltype(views::depthFirst(0, noChildren));
static_assert(std::ranges::view<DepthFirst> && std::ranges::input_range<DepthFirst>);

TEST(ConcatView, ReadsPartsInOrderAndSkipsEmptyOnes) {
    Vector a{1, 2}, empty, b{3}, c{4, 5, 6};
    auto all = views::concat(empty, a, empty, b, empty, c, empty);
    EXPECT_THAT(collect(all), ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_EQ(all.size(), 6u);
    EXPECT_TRUE(views::concat(empty, empty).empty());
    EXPECT_THAT(collect(all | std::views::reverse), ElementsAre(6, 5, 4, 3, 2, 1));

    // Every jump from every position lands where it would in the joined vector.
    const Vector joined{1, 2, 3, 4, 5, 6};
    const auto n = static_cast<std::ptrdiff_t>(joined.size());
    for (std::ptrdiff_t from = 0; from <= n; ++from) {
        for (std::ptrdiff_t to = 0; to <= n; ++to) {
            auto it = all.begin() + from;
            EXPECT_EQ(it - all.begin(), from);
            it += to - from;
            EXPECT_EQ(it - all.begin(), to) << from << " -> " << to;
            EXPECT_EQ(it == all.end(), to == n);
            if (to < n) {
                EXPECT_EQ(*it, joined[static_cast<std::size_t>(to)]);
            }
            EXPECT_EQ((all.begin() + from) < (all.begin() + to), from < to);
        }
    }
    EXPECT_EQ(std::default_sentinel - all.begin(), n);
}

TEST(ConcatView, WorksWithRangeAlgorithmsAndWritesThrough) {
    Vector a{5, 1}, b{4}, c{3, 2};
    auto all = views::concat(a, b, c);
    std::ranges::sort(all);
    EXPECT_THAT(a, ElementsAre(1, 2));
    EXPECT_THAT(b, ElementsAre(3));
    EXPECT_THAT(c, ElementsAre(4, 5));
    EXPECT_EQ(*std::ranges::lower_bound(all, 4), 4);
    EXPECT_EQ(std::ranges::find(all, 3) - all.begin(), 2);
    std::ranges::fill(all | std::views::drop(3), 0);
    EXPECT_THAT(c, ElementsAre(0, 0));

    // Parts of different kinds and element types, held by value when given as rvalues.
    std::list<long> list{10, 20};
    auto mixed = views::concat(Vector{1}, list, std::views::iota(7, 9));
    EXPECT_THAT(collect(mixed), ElementsAre(1, 10, 20, 7, 8));
    EXPECT_EQ(std::ranges::count_if(mixed, [](long x) { return x > 5; }), 4);
    // (A view holding a container by value is move-only, like std's owning views.)
    EXPECT_THAT(collect(std::move(mixed) | std::views::reverse), ElementsAre(8, 7, 20, 10, 1));

    // A part without an end iterator ends the view through a sentinel.
    std::istringstream text("8 9");
    auto withInput = views::concat(a, std::views::istream<int>(text));
    EXPECT_THAT(collect(withInput), ElementsAre(1, 2, 8, 9));

    // A mutable iterator converts to a constant one.
    const auto& constant = all;
    decltype(constant.begin()) it = all.begin();
    EXPECT_EQ(it, constant.begin());
}

TEST(GeneratedSequence, StepsFromTheSeedUntilTheStepGivesNothing) {
    auto powers = views::generated(1, doubling);
    EXPECT_THAT(collect(powers | std::views::take(5)), ElementsAre(1, 2, 4, 8, 16));
    // Multi-pass: iterators compare by position even when the sequence repeats a value.
    auto cycle = views::generated(0, [](int x) { return (x + 1) % 2; });
    auto first = cycle.begin();
    auto second = std::ranges::next(first, 2);
    EXPECT_EQ(*first, *second);
    EXPECT_NE(first, second);
    EXPECT_EQ(std::ranges::next(first, 2), second);

    auto collatz = views::generated(6, [](int x) -> std::optional<int> {
        if (x == 1) return std::nullopt;
        return x % 2 == 0 ? x / 2 : 3 * x + 1;
    });
    EXPECT_THAT(collect(collatz), ElementsAre(6, 3, 10, 5, 16, 8, 4, 2, 1));
    EXPECT_THAT(collect(views::generated(1, halving)), ElementsAre(1));
    EXPECT_EQ(std::ranges::max(collatz), 16);
}

TEST(GeneratedSequence, GeneratorIsCalledOncePerElementAndNeverAfterTheEnd) {
    int calls = 0;
    auto countdown = views::generated([&calls, left = 3]() mutable -> std::optional<int> {
        ++calls;
        if (left == 0) return std::nullopt;
        return left--;
    });
    EXPECT_EQ(calls, 0);  // nothing is computed before the walk starts
    EXPECT_THAT(collect(countdown), ElementsAre(3, 2, 1));
    EXPECT_EQ(calls, 4);
    EXPECT_EQ(countdown.begin(), countdown.end());
    EXPECT_EQ(calls, 4);

    std::vector<std::string> moved;
    auto words = views::generated([i = 0]() mutable -> std::optional<std::string> {
        if (i == 2) return std::nullopt;
        return std::string(40, static_cast<char>('a' + i++));
    });
    std::ranges::move(words, std::back_inserter(moved));
    EXPECT_THAT(moved, ElementsAre(std::string(40, 'a'), std::string(40, 'b')));
    EXPECT_THAT(collect(views::generated(nothing)), ElementsAre());
}

TEST(AdjacentPairsView, PairsNeighboursInEveryCategory) {
    Vector values{1, 3, 6, 10};
    auto pairs = values | views::adjacentPairs;
    EXPECT_EQ(pairs.size(), 3u);
    std::vector<std::pair<int, int>> seen(pairs.begin(), pairs.end());
    EXPECT_THAT(seen, ElementsAre(std::pair(1, 3), std::pair(3, 6), std::pair(6, 10)));
    EXPECT_EQ(pairs[2], std::pair(6, 10));
    EXPECT_EQ(pairs.end() - pairs.begin(), 3);
    EXPECT_THAT(collect(pairs | std::views::reverse |
                        std::views::transform([](auto p) { return p.first; })),
                ElementsAre(6, 3, 1));
    auto steps = pairs | std::views::transform([](auto p) { return p.second - p.first; });
    EXPECT_THAT(collect(steps), ElementsAre(2, 3, 4));

    for (auto [left, right] : pairs) right += left;  // writes through: prefix sums
    EXPECT_THAT(values, ElementsAre(1, 4, 10, 20));

    for (Vector shortOne : {Vector{}, Vector{7}}) {
        auto none = shortOne | views::adjacentPairs;
        EXPECT_EQ(none.size(), 0u);
        EXPECT_EQ(none.begin(), none.end());
        EXPECT_EQ(std::ranges::distance(none), 0);
    }

    std::forward_list<std::string> words{"a", "b", "c"};
    std::vector<std::string> joined;
    for (auto [x, y] : views::adjacentPairs(words)) joined.push_back(x + y);
    EXPECT_THAT(joined, ElementsAre("ab", "bc"));
    EXPECT_FALSE(std::ranges::empty(std::forward_list<int>{1, 2} | views::adjacentPairs));
    EXPECT_TRUE(std::ranges::empty(std::forward_list<int>{1} | views::adjacentPairs));

    auto collatz = views::generated(3, [](int x) -> std::optional<int> {
        return x == 1 ? std::nullopt : std::optional(x % 2 ? 3 * x + 1 : x / 2);
    });
    EXPECT_TRUE(std::ranges::all_of(collatz | views::adjacentPairs,
                                    [](auto p) { return p.first != p.second; }));
}

struct TreeNode {
    int value;
    std::vector<TreeNode> children;
};

TEST(RecursiveView, VisitsDepthFirstPreOrderAndBreadthFirst) {
    const TreeNode tree{1, {{2, {{4, {}}, {5, {{7, {}}}}}}, {3, {{6, {}}}}}};
    const TreeNode other{8, {{9, {}}}};
    auto children = [](const TreeNode* node) {
        std::vector<const TreeNode*> out;
        for (const TreeNode& child : node->children) out.push_back(&child);
        return out;
    };
    auto value = [](const TreeNode* node) { return node->value; };
    std::vector<const TreeNode*> roots{&tree, &other};

    auto depth = views::depthFirst(roots, children);
    EXPECT_THAT(collect(depth | std::views::transform(value)),
                ElementsAre(1, 2, 4, 5, 7, 3, 6, 8, 9));
    // Each begin() walks afresh.
    EXPECT_THAT(collect(depth | std::views::transform(value)),
                ElementsAre(1, 2, 4, 5, 7, 3, 6, 8, 9));
    EXPECT_THAT(collect(views::breadthFirst(roots, children) | std::views::transform(value)),
                ElementsAre(1, 8, 2, 3, 9, 4, 5, 6, 7));
    EXPECT_EQ((*std::ranges::find(depth, 6, value))->children.size(), 0u);
    EXPECT_THAT(collect(views::depthFirst(std::vector<int>(), noChildren)), ElementsAre());

    // Children given by reference into the caller's own table.
    std::map<int, std::vector<int>> graph{{1, {2, 3}}, {2, {4}}, {3, {}}, {4, {}}};
    auto byReference = [&graph](int n) -> const std::vector<int>& { return graph.at(n); };
    EXPECT_THAT(collect(views::depthFirst(1, byReference)), ElementsAre(1, 2, 4, 3));
    EXPECT_THAT(collect(views::breadthFirst(1, byReference)), ElementsAre(1, 2, 3, 4));
}

TEST(RecursiveView, IsLazyAndWalksAMillionDeepChainWithoutRecursion) {
    constexpr int depth = 1'000'000;
    int asked = 0;
    auto chain = [&asked](int n) {
        ++asked;
        return std::views::iota(n + 1, n < depth ? n + 2 : n + 1);
    };
    EXPECT_EQ(std::ranges::distance(views::depthFirst(0, chain)), depth + 1);
    EXPECT_EQ(asked, depth + 1);
    auto chainByValue = [](int n) { return std::vector<int>(n < depth ? 1 : 0, n + 1); };
    int last = -1;
    for (int n : views::breadthFirst(0, chainByValue)) last = n;
    EXPECT_EQ(last, depth);

    // Children are asked for only when the walk moves past a node, so an infinite tree is fine.
    asked = 0;
    auto binary = [&asked](int n) {
        ++asked;
        return std::vector<int>{2 * n, 2 * n + 1};
    };
    EXPECT_THAT(collect(views::breadthFirst(1, binary) | std::views::take(7)),
                ElementsAre(1, 2, 3, 4, 5, 6, 7));
    EXPECT_EQ(asked, 7);  // one per node the walk moved past
    EXPECT_THAT(collect(views::depthFirst(1, binary) | std::views::take(4)),
                ElementsAre(1, 2, 4, 8));
}

}  // namespace
}  // namespace mirels
