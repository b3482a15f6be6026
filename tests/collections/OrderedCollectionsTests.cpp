#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <ranges>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "mirels/collections/KeyValueMap.h"
#include "mirels/collections/OrderedDictionary.h"
#include "mirels/collections/OrderedSet.h"

namespace mirels {
namespace {

using Dictionary = OrderedDictionary<std::string, int>;

std::vector<std::string> keysOf(const Dictionary& d) {
    return {d.keys().begin(), d.keys().end()};
}

TEST(OrderedDictionary, KeysKeepTheirFirstPositionThroughUpdatesAndPositionAssignment) {
    Dictionary d{{"a", 1}, {"b", 2}, {"a", 3}};
    EXPECT_EQ(keysOf(d), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(d["a"], 3);

    d.set("c", 4);
    EXPECT_EQ(d.updateValue(10, "a"), 3);  // updating the first of three keys moves nothing
    EXPECT_EQ(keysOf(d), (std::vector<std::string>{"a", "b", "c"}));

    EXPECT_EQ(d.removeValue("zz"), std::nullopt);
    EXPECT_EQ(keysOf(d), (std::vector<std::string>{"a", "b", "c"}));

    // Assigning at a position ignores the position: a new key is appended, an existing one is
    // updated where it is, and the key at that position is never overwritten.
    d.setElement(0, {"k", 5});
    d.setElement(0, {"c", 6});
    EXPECT_EQ(keysOf(d), (std::vector<std::string>{"a", "b", "c", "k"}));
    EXPECT_EQ(d.at(0), (std::pair<std::string, int>("a", 10)));
    EXPECT_EQ(d["c"], 6);

    d.set("b", std::nullopt);
    d.modify("a", [](std::optional<int>& v) { *v += 1; });
    d.modify("new", [](std::optional<int>& v) { v = 7; });
    d.modify("k", [](std::optional<int>& v) { v.reset(); });
    EXPECT_EQ(d, (Dictionary{{"a", 11}, {"c", 6}, {"new", 7}}));
    EXPECT_NE(d, (Dictionary{{"c", 6}, {"a", 11}, {"new", 7}}));  // the order matters

    auto combined =
        Dictionary(std::vector<std::pair<std::string, int>>{{"x", 1}, {"y", 2}, {"x", 3}},
                   [](int old, int added) { return old * 10 + added; });
    EXPECT_EQ(combined, (Dictionary{{"x", 13}, {"y", 2}}));
}

TEST(OrderedDictionary, CopiesShareStorageUntilOneOfThemChanges) {
    Dictionary original{{"a", 1}, {"b", 2}};
    const std::pair<std::string, int>* before = original.begin();
    Dictionary copy = original;
    EXPECT_EQ(copy.begin(), before);  // a copy is a reference-count increment

    copy.updateValue(3, "c");
    *copy.find("a") = 100;
    EXPECT_EQ(original, (Dictionary{{"a", 1}, {"b", 2}}));
    EXPECT_EQ(original.begin(), before);  // the original's storage was never written
    EXPECT_EQ(copy, (Dictionary{{"a", 100}, {"b", 2}, {"c", 3}}));

    Dictionary alone{{"a", 1}};
    const auto* storage = alone.begin();
    alone.updateValue(2, "a");
    EXPECT_EQ(alone.begin(), storage);  // unshared storage is changed in place
}

// Random inserts, updates and removals against a reference model: catches index bookkeeping
// errors (positions after a removal, probe runs after a deletion, growth).
TEST(OrderedDictionary, AgreesWithAReferenceModelUnderRandomEdits) {
    std::mt19937 random(7);
    OrderedDictionary<int, int> dictionary;
    std::vector<std::pair<int, int>> model;
    OrderedDictionary<int, int> snapshot;  // shares storage, so the next edit copies it
    std::vector<std::pair<int, int>> snapshotModel;
    for (int step = 0; step < 20000; ++step) {
        int key = static_cast<int>(random() % 300);
        auto inModel = std::ranges::find(model, key, &std::pair<int, int>::first);
        if (random() % 3 == 0) {
            auto removed = dictionary.removeValue(key);
            ASSERT_EQ(removed.has_value(), inModel != model.end());
            if (inModel != model.end()) {
                EXPECT_EQ(*removed, inModel->second);
                model.erase(inModel);
            }
        } else {
            dictionary.updateValue(step, key);
            if (inModel != model.end()) {
                inModel->second = step;
            } else {
                model.emplace_back(key, step);
            }
        }
        if (step % 97 == 0) {
            ASSERT_TRUE(std::ranges::equal(snapshot, snapshotModel)) << step;
            snapshot = dictionary;
            snapshotModel = model;
        }
    }
    ASSERT_TRUE(std::ranges::equal(dictionary, model));
    for (int key = 0; key < 300; ++key) {
        auto inModel = std::ranges::find(model, key, &std::pair<int, int>::first);
        EXPECT_EQ(dictionary.contains(key), inModel != model.end()) << key;
    }
}

TEST(OrderedDictionary, SortsTransformsAndUnitesGroups) {
    Dictionary d{{"b", 2}, {"c", 3}, {"a", 1}};
    d.sort([](const std::string& x, const std::string& y) { return x < y; });
    EXPECT_EQ(keysOf(d), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(d["b"], 2);  // lookups follow the new positions

    auto halves = d.mapValues([](int v) { return v / 2.0; });
    EXPECT_EQ(halves.at(2), (std::pair<std::string, double>("c", 1.5)));
    EXPECT_THROW(d.mapValues([](int v) -> int { throw std::runtime_error(std::to_string(v)); }),
                 std::runtime_error);

    std::vector<int> values(d.values().begin(), d.values().end());
    EXPECT_EQ(values, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(std::ranges::find_if(d, [](const auto& e) { return e.second == 3; })->first, "c");

    using Groups = OrderedDictionary<std::string, std::vector<int>>;
    Groups a{{"x", {1}}, {"y", {2}}};
    Groups b{{"z", {5}}, {"x", {3, 4}}};
    EXPECT_EQ(Groups::unionGroups(a, b), (Groups{{"x", {1, 3, 4}}, {"y", {2}}, {"z", {5}}}));
}

TEST(OrderedDictionary, PositionOutOfRangeStops) {
    Dictionary d{{"a", 1}};
    EXPECT_DEATH(d.at(1), "Index 1 is out of range 0..<1.");
}

template <class Map>
void exerciseKeyValueMap() {
    Map map;
    int made = 0;
    guaranteedValue(map, 1, [&] { return ++made; }) += 10;
    guaranteedValue(map, 1, [&] { return ++made; });
    EXPECT_EQ(made, 1);
    Map more = setting(map, 5, 2);
    EXPECT_EQ(map.size(), 1u);
    Map all = appending(more, std::vector<std::pair<int, int>>{{3, 7}, {2, 8}});
    EXPECT_EQ(all, makeKeyValueMap<Map>(std::vector<std::pair<int, int>>{{1, 11}, {2, 8}, {3, 7}}));
}

TEST(KeyValueMap, WorksTheSameForOrderedAndPlainHashMaps) {
    exerciseKeyValueMap<OrderedDictionary<int, int>>();
    exerciseKeyValueMap<std::unordered_map<int, int>>();
}

TEST(OrderedSet, AppendsOnceAndInsertingAPresentElementMovesIt) {
    OrderedSet<std::string> set{"a", "b", "c"};
    EXPECT_FALSE(set.append("b"));
    EXPECT_TRUE(set.append("d"));
    set.append(std::vector<std::string>{"a", "e"});
    EXPECT_EQ(set.arrayForm(), (std::vector<std::string>{"a", "b", "c", "d", "e"}));

    set.insert("a", 2);  // removed first, then the index counts: b, c, a
    EXPECT_EQ(set.arrayForm(), (std::vector<std::string>{"b", "c", "a", "d", "e"}));
    set.insert("z", 0);
    EXPECT_EQ(set.indexOf("a"), 3u);
    EXPECT_EQ(set.indexOf("y"), std::nullopt);

    EXPECT_EQ(set.remove("c"), "c");
    EXPECT_EQ(set.remove("c"), std::nullopt);
    EXPECT_EQ(set.removeAt(0), "z");
    EXPECT_EQ(set.removeLast(), "e");
    EXPECT_EQ(set, (OrderedSet<std::string>{"b", "a", "d"}));
    EXPECT_NE(set, (OrderedSet<std::string>{"a", "b", "d"}));
    EXPECT_TRUE(set.contains("d"));
    EXPECT_FALSE(set.contains("e"));
    EXPECT_EQ(set.first(), "b");
    EXPECT_EQ(set.last(), "d");
}

TEST(OrderedSet, SetAlgebraKeepsTheReceiversOrder) {
    OrderedSet<int> set{5, 1, 4, 2, 3};
    EXPECT_EQ(set.subtracting(std::vector{4, 9, 5}).arrayForm(), (std::vector{1, 2, 3}));
    EXPECT_EQ(set.intersection(std::vector{3, 5, 7, 2}).arrayForm(), (std::vector{5, 2, 3}));
    OrderedSet<int> copy = set;
    copy.formIntersection(std::vector{1});
    copy.append(8);
    EXPECT_EQ(copy.arrayForm(), (std::vector{1, 8}));
    EXPECT_EQ(set.count(), 5u);  // untouched by the copy's changes
    EXPECT_EQ(set.appending(6).last(), 6);
    EXPECT_EQ(orderedUniqued(std::vector{3, 1, 3, 2, 1}).arrayForm(), (std::vector{3, 1, 2}));

    set.removeAll(true);
    EXPECT_TRUE(set.isEmpty());
    EXPECT_TRUE(set.append(1));
    EXPECT_EQ(copy.count(), 2u);

    std::vector<int> sorted(set.begin(), set.end());
    EXPECT_TRUE(std::ranges::is_sorted(sorted));
}

}  // namespace
}  // namespace mirels
