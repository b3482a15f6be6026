#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

#include "mirels/core/AnyLens.h"
#include "mirels/core/MutableBox.h"

namespace mirels {
namespace {

struct Address {
    std::string city;
    int number = 0;
};

struct Person {
    std::string name;
    Address address;
    std::vector<int> scores;
    std::optional<std::string> nickname;
};

TEST(AnyLens, GetsAndSetsThroughMembersAccessorsAndCompositions) {
    Person ada{"Ada", {"London", 12}, {3, 4}, std::nullopt};
    const AnyLens<Person, Address> address(&Person::address);
    const auto city = address / &Address::city;
    const AnyLens<Person, std::string> cityFromComposition = address.then(&Address::city);
    EXPECT_EQ(city.get(ada), "London");
    city.set(ada, "Paris");
    EXPECT_EQ(ada.address.city, "Paris");
    EXPECT_EQ(cityFromComposition.with(ada, "Rome").address.city, "Rome");
    EXPECT_EQ(ada.address.city, "Paris");  // `with` works on a copy

    // A computed middle: reads, changes and writes back the intermediate value.
    int writes = 0;
    const AnyLens<Person, Address> copiedAddress([](const Person& p) { return p.address; },
                                                 [&writes](Person& p, Address a) {
                                                     ++writes;
                                                     p.address = std::move(a);
                                                 });
    const auto number = copiedAddress / lens::member(&Address::number);
    number.set(ada, 99);
    EXPECT_EQ(ada.address.number, 99);
    EXPECT_EQ(writes, 1);
    number.modify(ada, [](int& n) { n += 1; });
    EXPECT_EQ(number.get(ada), 100);
    EXPECT_EQ(writes, 2);
    (address / &Address::number).modify(ada, [](int& n) { n = 7; });  // in place
    EXPECT_EQ(ada.address.number, 7);
    EXPECT_EQ(writes, 2);

    // A getter/setter lens that is not a member: the name in upper case.
    const AnyLens<Person, std::size_t> nameLength(
        [](const Person& p) { return p.name.size(); },
        [](Person& p, std::size_t n) { p.name.resize(n, '!'); });
    nameLength.set(ada, 5);
    EXPECT_EQ(ada.name, "Ada!!");
    EXPECT_FALSE((AnyLens<Person, int>()));
    EXPECT_TRUE(nameLength);
}

TEST(AnyLens, ReachesIntoOptionalsElementsAndMaps) {
    Person ada{"Ada", {}, {3, 4}, std::nullopt};
    const auto nickname = AnyLens(&Person::nickname) / lens::optionalValue<std::string>("(none)");
    EXPECT_EQ(nickname.get(ada), "(none)");
    nickname.set(ada, "Countess");
    EXPECT_EQ(ada.nickname, "Countess");

    const auto second = AnyLens(&Person::scores) / lens::element<std::vector<int>>(1);
    EXPECT_EQ(second.get(ada), 4);
    second.modify(ada, [](int& s) { s *= 10; });
    EXPECT_EQ(ada.scores, (std::vector<int>{3, 40}));
    const auto tenth = AnyLens(&Person::scores) / lens::element<std::vector<int>>(10);
    EXPECT_THROW(tenth.get(ada), std::out_of_range);
    EXPECT_THROW(tenth.set(ada, 1), std::out_of_range);
    EXPECT_EQ(ada.scores.size(), 2u);

    std::map<std::string, int> ages{{"ada", 36}};
    const auto grace = lens::value<std::map<std::string, int>>("grace");
    EXPECT_EQ(grace.get(ages), std::nullopt);
    grace.set(ages, 85);
    EXPECT_EQ(ages.at("grace"), 85);
    grace.set(ages, std::nullopt);
    EXPECT_EQ(ages.count("grace"), 0u);
    EXPECT_EQ((lens::value<std::map<std::string, int>>("ada").get(ages)), 36);
}

TEST(MutableBox, SharesOneValueAndComparesByIdentity) {
    MutableBox<std::vector<int>> box;
    auto alias = box;
    alias->push_back(1);
    box.modify([](std::vector<int>& v) { v.push_back(2); });
    EXPECT_EQ(box.value(), (std::vector<int>{1, 2}));
    EXPECT_EQ(box, alias);

    auto copy = box.copy();
    EXPECT_NE(copy, box);  // same value, different box
    EXPECT_EQ(*copy, *box);
    copy.set({9});
    EXPECT_EQ(box.value().size(), 2u);
    EXPECT_EQ(box.exchange({}), (std::vector<int>{1, 2}));
    EXPECT_TRUE(alias->empty());

    std::unordered_set<MutableBox<std::vector<int>>> set{box, alias, copy};
    EXPECT_EQ(set.size(), 2u);
    EXPECT_EQ(box.ref(), alias.ref());
    EXPECT_EQ((MutableBox<std::string>(std::in_place, 3, 'x').value()), "xxx");
}

}  // namespace
}  // namespace mirels
