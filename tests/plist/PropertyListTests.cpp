#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "mirels/core/UUID.h"
#include "mirels/errors/HumanReadableErrorOptions.h"
#include "mirels/errors/HumanReadableErrorOptionsPropertyList.h"
#include "mirels/geometry/Geometry.h"
#include "mirels/plist/GeometryPropertyList.h"
#include "mirels/plist/PlistSerialization.h"
#include "mirels/plist/PropertyList.h"
#include "mirels/plist/PropertyListError.h"
#include "mirels/plist/UUIDPropertyList.h"
#include "support/SoftAssertions.h"

namespace mirels {

enum class Fruit { apple, pear };
enum class Level { low = 1, high = 9 };

template <>
struct RawValueCases<Fruit> {
    static constexpr std::array cases = {std::pair{Fruit::apple, "a"}, std::pair{Fruit::pear, "p"}};
};
template <>
struct RawValueCases<Level> {
    static constexpr std::array cases = {std::pair{Level::low, 10}, std::pair{Level::high, 90}};
};

namespace {

/// A record type of a caller's, conforming through members.
struct Profile {
    std::string name;
    std::optional<UUID> identifier;
    std::vector<Fruit> favourites;

    using PropertyListType = PropertyList;
    PropertyList propertyListValue() const {
        PropertyList list;
        list.archiveValue(name, "name");
        list.archiveValue(identifier, "identifier");
        list.archiveValue(favourites, "favourites");
        return list;
    }
    static Profile fromPropertyListValue(const PropertyList& list) {
        return Profile{list.unarchiveValue<std::string>("name"),
                       list.unarchiveOptionalValue<UUID>("identifier"),
                       list.unarchiveValue<std::vector<Fruit>>("favourites")};
    }
    friend bool operator==(const Profile&, const Profile&) = default;
};

/// The message of the `PropertyListError` or `InvalidUUID` that `read` throws.
template <class Read>
std::string failure(Read read) {
    try {
        read();
    } catch (const PropertyListError& error) {
        return error.message();
    } catch (const InvalidUUID& error) {
        return error.message();
    }
    return "(no error)";
}

TEST(PropertyList, TypedValuesRoundTripThroughTheirPlainForms) {
    const UUID id = *UUID::fromString("123E4567-E89B-42D3-A456-426614174000");
    const auto now = std::chrono::system_clock::time_point(std::chrono::seconds(1700000000));
    PropertyList list;
    list.archiveValue("text", "string");
    list.archiveValue(true, "bool");
    list.archiveValue(std::uint8_t{200}, "uint8");
    list.archiveValue(std::int32_t{-7}, "int32");
    list.archiveValue(std::numeric_limits<std::uint64_t>::max(), "uint64");
    list.archiveValue(2.5f, "float");
    list.archiveValue(PlistData{1, 2, 3}, "data");
    list.archiveValue(now, "date");
    list.archiveValue(id, "uuid");
    list.archiveValue(std::vector<UUID>{id, UUID()}, "uuids");
    list.archiveValue(std::map<Fruit, Level>{{Fruit::pear, Level::high}}, "levels");
    list.archiveValue(Rect{{1, 2}, {3, 4}}, "rect");
    list.archiveValue(HumanReadableErrorOptions::showTitleOnly, "options");
    list.archiveValue(Identifier(-42), "identifier");
    list.archiveValue(Profile{"Ada", id, {Fruit::apple, Fruit::pear}}, "profile");

    EXPECT_EQ(list.unarchiveValue<std::string>("string"), "text");
    EXPECT_TRUE(list.unarchiveValue<bool>("bool"));
    EXPECT_EQ(list.unarchiveValue<std::uint8_t>("uint8"), 200);
    EXPECT_EQ(list.unarchiveValue<std::int32_t>("int32"), -7);
    EXPECT_EQ(list.unarchiveValue<std::uint64_t>("uint64"),
              std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(list.unarchiveValue<float>("float"), 2.5f);
    EXPECT_EQ(list.unarchiveValue<PlistData>("data"), (PlistData{1, 2, 3}));
    EXPECT_EQ(list.unarchiveValue<std::chrono::system_clock::time_point>("date"), now);
    EXPECT_EQ(list.unarchiveValue<UUID>("uuid"), id);
    EXPECT_EQ(list.unarchiveValue<std::vector<UUID>>("uuids"), (std::vector<UUID>{id, UUID()}));
    EXPECT_EQ((list.unarchiveValue<std::map<Fruit, Level>>("levels")),
              (std::map<Fruit, Level>{{Fruit::pear, Level::high}}));
    EXPECT_EQ(list.unarchiveValue<Rect>("rect"), (Rect{{1, 2}, {3, 4}}));
    EXPECT_EQ(list.unarchiveValue<HumanReadableErrorOptions>("options"),
              HumanReadableErrorOptions::showTitleOnly);
    EXPECT_EQ(list.unarchiveValue<Identifier>("identifier"), Identifier(-42));
    EXPECT_EQ(list.unarchiveValue<Profile>("profile"),
              (Profile{"Ada", id, {Fruit::apple, Fruit::pear}}));

    // The stored forms are the plain ones, containers flattened.
    const PlistDictionary& stored = list.serializableDictionary();
    EXPECT_EQ(stored.at("uuid"), PlistValue("123e4567-e89b-42d3-a456-426614174000"));
    EXPECT_EQ(stored.at("uuids").getIf<PlistArray>()->at(1),
              PlistValue("00000000-0000-0000-0000-000000000000"));
    EXPECT_EQ(stored.at("levels"), PlistValue(PlistDictionary{{"p", 90}}));
    EXPECT_EQ(stored.at("rect"), PlistValue(PlistDictionary{
                                     {"origin", PlistDictionary{{"x", 1.0}, {"y", 2.0}}},
                                     {"size", PlistDictionary{{"width", 3.0}, {"height", 4.0}}}}));
    EXPECT_EQ(stored.at("options"), PlistValue(4));
    EXPECT_EQ(stored.at("uint64"), PlistValue(std::int64_t{-1}));

    // Survives libplist's XML and binary forms.
    EXPECT_EQ(parsePropertyListDictionary(toBinary(list)), list);
    PropertyList fromXML = parsePropertyListDictionary(toXML(list));
    EXPECT_EQ(fromXML.unarchiveValue<Profile>("profile"), list.unarchiveValue<Profile>("profile"));
    EXPECT_THROW(parsePropertyListDictionary(toXML(PlistArray{})), PropertyListSerializationError);
}

TEST(PropertyList, ReadingFailuresCarryThePreciseMessages) {
    PropertyList list(PlistDictionary{{"n", 3}, {"ids", PlistArray{"x", 4}}});
    const std::string dump = "\nProperty list: {\"ids\": [\"x\", 4], \"n\": 3}";
    EXPECT_EQ(failure([&] { list.unarchiveValue<std::string>("k"); }),
              "Property list missing value for required key \"k\"" + dump);
    EXPECT_EQ(
        failure([&] { list.unarchiveValue<std::string>("n"); }),
        "Property list contained invalid value for key \"n\": value was Int, expected String" +
            dump);
    EXPECT_EQ(failure([&] { list.unarchiveValue<std::vector<UUID>>("ids"); }),
              "Property list error while unflattening \"ids\": \"Int\" could not be unflattened "
              "into String" +
                  dump);
    EXPECT_EQ(
        failure([&] {
            PropertyList(PlistDictionary{{"f", "b"}}).unarchiveValue<Fruit>("f");
        }),
        "Property list contained invalid raw value for RawRepresentable type Fruit: no member "
        "\"b\"");
    EXPECT_EQ(
        failure([&] {
            PropertyList(PlistDictionary{{"l", 5}}).unarchiveValue<Level>("l");
        }),
        "Property list contained invalid raw value for RawRepresentable type Level: no member "
        "\"5\"");
    EXPECT_EQ(failure([&] {
                  PropertyList(PlistDictionary{{"u", "not-a-uuid"}}).unarchiveValue<UUID>("u");
              }),
              "Invalid UUID string: not-a-uuid");

    // The error is a human-readable one, and names its parts.
    try {
        list.unarchiveValue<std::int8_t>("ids");
        FAIL();
    } catch (const PropertyListError& error) {
        EXPECT_EQ(error.kind(), PropertyListError::Kind::invalidValue);
        EXPECT_EQ(error.typeName(), "Int8");
        EXPECT_EQ(error.propertyList(), list);
        EXPECT_EQ(error.additionalInfo(), error.message());
        EXPECT_EQ(std::string(error.what()), "PropertyListError\n\n" + error.message());
    }
}

TEST(PropertyList, KindsAreCheckedExactlyAndOptionalsOnlyForgiveAbsence) {
    PropertyList list(PlistDictionary{{"big", 300},
                                      {"whole", 3.0},
                                      {"half", 2.5},
                                      {"one", 1},
                                      {"huge", (std::int64_t{1} << 60) + 1}});
    using ::testing::StartsWith;
    EXPECT_THAT(failure([&] { list.unarchiveValue<std::uint8_t>("big"); }),
                StartsWith("Property list contained invalid value for key \"big\": value was Int, "
                           "expected UInt8\n"));
    EXPECT_EQ(list.unarchiveValue<int>("whole"), 3);
    EXPECT_THROW(list.unarchiveValue<int>("half"), PropertyListError);
    EXPECT_EQ(list.unarchiveValue<double>("one"), 1.0);
    EXPECT_THROW(list.unarchiveValue<double>("huge"), PropertyListError);  // not exact
    EXPECT_THROW(list.unarchiveValue<bool>("one"), PropertyListError);
    EXPECT_EQ(list.unarchiveValue<PlistValue>("half"), PlistValue(2.5));

    EXPECT_EQ(list.unarchiveOptionalValue<std::string>("absent"), std::nullopt);
    EXPECT_THROW(list.unarchiveOptionalValue<std::string>("one"), PropertyListError);

    list.archiveValue(std::optional<int>(), "one");
    list.archiveValue(std::nullopt, "big");
    EXPECT_EQ(list.find("one"), nullptr);
    EXPECT_THAT(failure([&] { list.unarchiveValue<int>("big"); }),
                StartsWith("Property list missing value for required key \"big\"\n"));
}

TEST(PropertyList, NestedDamageIsReportedWhereItIs) {
    PropertyList list(PlistDictionary{
        {"flat", PlistDictionary{{"origin", "here"}}},
        {"partial", PlistDictionary{{"origin", PlistDictionary{{"x", 1}}},
                                    {"size", PlistDictionary{{"width", 1}, {"height", 1}}}}},
        {"grid", PlistArray{PlistArray{1, 2}, PlistArray{3, "four"}}},
        {"rows", PlistArray{PlistArray{1}, 2}},
    });
    EXPECT_EQ(failure([&] { list.unarchiveValue<Rect>("flat"); }),
              "Property list contained invalid value for key \"origin\": value was String, "
              "expected PropertyList\nProperty list: {\"origin\": \"here\"}");
    EXPECT_EQ(failure([&] { list.unarchiveValue<Rect>("partial"); }),
              "Property list missing value for required key \"y\"\nProperty list: {\"x\": 1}");
    using ::testing::StartsWith;
    EXPECT_THAT(
        failure([&] { list.unarchiveValue<std::vector<std::vector<long>>>("grid"); }),
        StartsWith("Property list error while unflattening \"grid\": \"String\" could not be "
                   "unflattened into Int\n"));
    EXPECT_THAT(failure([&] { list.unarchiveValue<std::vector<std::vector<int>>>("rows"); }),
                StartsWith("Property list error while unflattening \"rows\": \"Int\" could not be "
                           "unflattened into Array<Int32>\n"));

    // Large and deep values read without trouble.
    std::vector<int> many(100000);
    for (int i = 0; i < 100000; ++i) many[static_cast<std::size_t>(i)] = i;
    PlistValue deep = PlistDictionary{};
    for (int i = 0; i < 500; ++i) deep = PlistDictionary{{"d", std::move(deep)}};
    PropertyList big;
    big.archiveValue(many, "many");
    big.archiveValue(deep, "deep");
    EXPECT_EQ(big.unarchiveValue<std::vector<int>>("many"), many);
    EXPECT_EQ(big.unarchiveValue<PropertyList>("deep").size(), 1u);
    EXPECT_EQ(parsePropertyListDictionary(toBinary(big)), big);
}

TEST(PropertyList, MergesChooseOrReportOnSharedKeys) {
    PropertyList first(PlistDictionary{{"a", 1}, {"b", 2}});
    PropertyList second(PlistDictionary{{"b", 20}, {"c", 30}});
    auto sum = [](const PlistValue& current, const PlistValue& incoming) {
        return PlistValue(*current.getIf<std::int64_t>() + *incoming.getIf<std::int64_t>());
    };
    EXPECT_EQ(first.merging(second, sum),
              PropertyList(PlistDictionary{{"a", 1}, {"b", 22}, {"c", 30}}));

    PropertyList unchanged = first;
    EXPECT_THROW(unchanged.merge(second,
                                 [](const PlistValue&, const PlistValue&) -> PlistValue {
                                     throw std::runtime_error("refused");
                                 }),
                 std::runtime_error);
    EXPECT_EQ(unchanged, first);

    testing::SoftAssertionRecorder reports;
    EXPECT_EQ(first.confidentlyMerging(PropertyList(PlistDictionary{{"c", 3}})).size(), 3u);
    EXPECT_EQ(reports.count(), 0u);
    PropertyList merged = first;
    merged.confidentlyMerge(PropertyList(PlistDictionary{{"a", 10}, {"b", 20}, {"d", 4}}));
    EXPECT_EQ(merged, PropertyList(PlistDictionary{{"a", 10}, {"b", 20}, {"d", 4}}));
    EXPECT_EQ(reports.count(), 2u);
    EXPECT_EQ(first.confidentlyMerging(second).unarchiveValue<int>("b"), 20);
    EXPECT_EQ(reports.count(), 3u);
    EXPECT_EQ(first, PropertyList(PlistDictionary{{"a", 1}, {"b", 2}}));
}

TEST(PropertyList, CopiesShareUntilOneChangesAlsoAcrossThreads) {
    PropertyList original(PlistDictionary{{"k", 0}});
    PropertyList copy = original;
    EXPECT_EQ(&std::as_const(copy).serializableDictionary(),
              &std::as_const(original).serializableDictionary());
    copy.archiveValue(1, "k");
    EXPECT_EQ(original.unarchiveValue<int>("k"), 0);
    EXPECT_EQ(copy.unarchiveValue<int>("k"), 1);
    EXPECT_TRUE(PropertyList(copy).takeSerializableDictionary() == copy.serializableDictionary());

    // Threads copy one shared list, change their copies and drop them while others read.
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i) {
                PropertyList mine = original;
                if (mine.unarchiveValue<int>("k") != 0) ++mismatches;
                mine.archiveValue(t * 10000 + i, "k");
                if (mine.unarchiveValue<int>("k") != t * 10000 + i) ++mismatches;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_EQ(original.unarchiveValue<int>("k"), 0);
}

TEST(UUID, ParsesAndPrintsTheCanonicalForm) {
    UUID random = UUID::random();
    EXPECT_EQ(UUID::fromString(random.uuidString()), random);
    EXPECT_EQ(random.uuidString()[14], '4');
    EXPECT_NE(random, UUID::random());
    for (const char* bad :
         {"", "123e4567e89b42d3a456426614174000", "123e4567-e89b-42d3-a456-42661417400g",
          "123e4567-e89b-42d3-a456_426614174000", "123e4567-e89b-42d3-a456-4266141740000"}) {
        EXPECT_EQ(UUID::fromString(bad), std::nullopt) << bad;
    }
}

}  // namespace
}  // namespace mirels
