#include <gtest/gtest.h>

#include <list>
#include <set>
#include <string>
#include <vector>

#include "mirels/collections/AssertInhabit.h"
#include "mirels/collections/Inhabited.h"
#include "support/SoftAssertions.h"

namespace mirels {
namespace {

template <class C>
std::vector<std::ranges::range_value_t<C>> toVector(const C& collection) {
    return {collection.begin(), collection.end()};
}

TEST(Inhabited, TransformsStayNonEmptyAndKeepTheProofInStep) {
    Inhabited numbers(1, 2, 3);
    auto reversed = numbers.reversed();
    EXPECT_EQ(toVector(reversed), (std::vector{3, 2, 1}));
    EXPECT_EQ(reversed.first(), 3);
    EXPECT_EQ(numbers.reversedView().first(), 3);
    EXPECT_EQ(numbers.reversedView().last(), 1);

    EXPECT_EQ(numbers.map([](int v) { return std::to_string(v); }).last(), "3");
    auto runningSums = numbers.mapWithPrevious(
        [](int v, const int* previous) { return v + (previous ? *previous : 0); });
    EXPECT_EQ(toVector(runningSums), (std::vector{1, 3, 6}));
    EXPECT_EQ(numbers.enumerated().last(), (std::pair<std::size_t, int>(2, 3)));
    EXPECT_EQ(numbers.sorted(std::greater<>()).first(), 3);

    Inhabited<std::vector<int>> repeated(2, std::vector{1, 2, 3, 1});
    EXPECT_EQ(repeated.uniqued().count(), 3u);
    EXPECT_EQ(repeated.orderedUniqued().base().arrayForm(), (std::vector{2, 1, 3}));
    auto byParity = repeated.orderedKeyedMap([](int v) { return std::pair(v % 2, v); });
    EXPECT_EQ(byParity.first(), (std::pair<int, int>(0, 2)));
    EXPECT_EQ(byParity.base()[1], 1);  // later values win, first positions stay

    // Changing the first element changes both the proof and element 0.
    numbers.withFirst([](int& first) { first = 10; });
    EXPECT_EQ(numbers.first(), 10);
    EXPECT_EQ(numbers[0], 10);
    numbers.insert(0, 0);
    numbers.insert(std::vector{-2, -1}, 0);
    EXPECT_EQ(numbers.first(), -2);
    numbers.setElement(0, -3);
    EXPECT_EQ(numbers.first(), -3);
    EXPECT_EQ(numbers.appending(std::vector{7, 8}).last(), 8);
    EXPECT_EQ(numbers.inserting(9, 1)[1], 9);
    EXPECT_EQ(numbers.checked(6), std::nullopt);
    EXPECT_EQ(numbers.checked(5), 3);
    EXPECT_EQ(std::ranges::distance(numbers.slice(1, 4)), 3);
}

TEST(Inhabited, SetBasesFollowTheirFirstElement) {
    Inhabited<std::set<int>> set(5, 7);
    EXPECT_EQ(set.first(), 5);
    EXPECT_TRUE(set.insert(1));  // a new smallest element becomes the set's first
    EXPECT_EQ(set.first(), 1);
    set.formUnion(std::vector{0, 9});
    EXPECT_EQ(set.first(), 0);
    EXPECT_EQ(set.last(), 9);

    Inhabited<OrderedSet<std::string>> ordered("b", "a");
    EXPECT_FALSE(ordered.append("b"));
    ordered.append(std::vector<std::string>{"c"});
    EXPECT_EQ(ordered.base().arrayForm(), (std::vector<std::string>{"b", "a", "c"}));

    auto dictionary =
        *Inhabited<OrderedDictionary<std::string, int>>::wrapping({{"x", 1}, {"y", 2}});
    auto updated = dictionary.appending(std::vector<std::pair<std::string, int>>{{"x", 5}});
    EXPECT_EQ(updated.first(), (std::pair<std::string, int>("x", 5)));
    EXPECT_EQ(dictionary.first(), (std::pair<std::string, int>("x", 1)));
}

TEST(Inhabited, GroupingGivesNonEmptyGroupsInOrderOfFirstOccurrence) {
    std::vector<std::string> words{"banana", "apple", "blueberry", "cherry", "avocado"};
    auto byInitial = orderedGroupElements(words, [](const std::string& w) { return w[0]; });
    EXPECT_EQ(std::vector<char>(byInitial.keys().begin(), byInitial.keys().end()),
              (std::vector<char>{'b', 'a', 'c'}));
    EXPECT_EQ(toVector(*byInitial.find('a')), (std::vector<std::string>{"apple", "avocado"}));

    auto lengths = groupElements(
        words, [](const std::string& w) { return w[0]; },
        [](const std::string& w) { return w.size(); });
    EXPECT_EQ(toVector(lengths.at('b')), (std::vector<std::size_t>{6, 9}));

    auto odd = compactGroupElements(std::vector{1, 2, 3, 5},
                                    [](int v) -> std::optional<std::pair<bool, int>> {
                                        if (v % 2 == 0) return std::nullopt;
                                        return std::pair(v > 2, v);
                                    });
    EXPECT_EQ(odd.size(), 2u);
    EXPECT_EQ(toVector(odd.at(true)), (std::vector{3, 5}));
    EXPECT_EQ(groupElements(words, [](const std::string& w) { return w.size(); }).size(), 4u);
}

TEST(AssertInhabit, ReportsAnEmptyCollectionAndWrapsAFullOne) {
    testing::SoftAssertionRecorder reports;
    EXPECT_EQ(assertInhabit(std::vector<int>{}), std::nullopt);
    ASSERT_EQ(reports.count(), 1u);
    EXPECT_TRUE(reports.files()[0].starts_with("InhabitedTests.cpp:")) << reports.files()[0];

    auto one = assertInhabit(std::list<std::string>{"only"});
    ASSERT_TRUE(one.has_value());
    EXPECT_EQ(one->first(), "only");
    EXPECT_EQ(one->last(), "only");
    EXPECT_EQ(reports.count(), 1u);
}

/// A collection that breaks its contract: it claims three elements but yields them only on
/// its first iteration, so transforms after wrapping find nothing.
class FlakyCollection {
  public:
    using value_type = int;
    std::vector<int>::const_iterator begin() const {
        return iterated_++ == 0 ? elements_.begin() : elements_.end();
    }
    std::vector<int>::const_iterator end() const { return elements_.end(); }
    std::size_t size() const { return elements_.size(); }

  private:
    std::vector<int> elements_{1, 2, 3};
    mutable int iterated_ = 0;
};

TEST(Inhabited, AnEmptyResultFromABrokenBaseStopsWithItsTypeAndCount) {
    auto broken = [] { return *Inhabited<FlakyCollection>::wrapping(FlakyCollection()); };
    EXPECT_DEATH(broken().map([](int v) { return v; }),
                 "Calling `map` on underlying .*FlakyCollection with 3 element\\(s\\) produced "
                 "no first element");
    EXPECT_DEATH(broken().orderedUniqued(),
                 "Calling `orderedUniqued` on underlying .*FlakyCollection with 3 element\\(s\\) "
                 "produced no first element");
    EXPECT_DEATH(broken().orderedKeyedMap([](int v) { return std::pair(v, v); }),
                 "Calling `orderedKeyedMap` on underlying .*FlakyCollection with 3 element\\(s\\) "
                 "produced no first element");
    EXPECT_DEATH(broken().reversed(),
                 "Calling reversed on a non-empty sequence with 3 elements resulted in an empty "
                 "array\\.");
}

}  // namespace
}  // namespace mirels
