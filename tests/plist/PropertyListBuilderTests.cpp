#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "mirels/core/UUID.h"
#include "mirels/geometry/Geometry.h"
#include "mirels/plist/GeometryPropertyList.h"
#include "mirels/plist/PropertyListBuilder.h"
#include "mirels/plist/UUIDPropertyList.h"

namespace mirels {
namespace {

TEST(PropertyListBuilder, BlocksMixKeyAndValueTypesAndDropAbsentValues) {
    const UUID id = UUID::random();
    std::optional<int> absent;
    PropertyList list([&] {
        return PropertyListBuilder::buildBlock(
            {"name", "Ada"}, {Point::Key::x, absent}, {Point::Key::y, 2.5}, {"id", id},
            {"origin", Point{1, 2}}, {"count", std::optional(3)});
    });
    EXPECT_EQ(list.serializableDictionary(),
              (PlistDictionary{{"name", "Ada"},
                               {"y", 2.5},
                               {"id", id.uuidString()},
                               {"origin", PlistDictionary{{"x", 1.0}, {"y", 2.0}}},
                               {"count", 3}}));
    EXPECT_EQ(list.unarchiveValue<UUID>("id"), id);

    EXPECT_TRUE(PropertyListBuilder::buildBlock({"a", std::nullopt}, {"b", absent}).empty());
    EXPECT_EQ(PropertyListBuilder::buildBlock({"1", 1}, {"2", 2}, {"3", 3}, {"4", 4}, {"5", 5},
                                              {"6", 6}, {"7", 7}, {"8", 8}, {"9", 9}, {"10", 10})
                  .size(),
              10u);

    // One line goes straight to the content constructor; an absent value leaves it empty.
    EXPECT_EQ(PropertyList([] { return std::pair{Size::Key::width, 4.0}; }).size(), 1u);
    EXPECT_TRUE(PropertyList([&] { return std::pair{"k", absent}; }).isEmpty());
    EXPECT_TRUE(PropertyList([] { return std::pair{"k", std::optional<PlistValue>()}; }).isEmpty());
    EXPECT_EQ(PropertyList([] {
                  return PlistDictionary{{"k", true}};
              }).unarchiveValue<bool>("k"),
              true);
}

TEST(PropertyListBuilderDeathTest, ARepeatedKeyStopsTheProcess) {
    // Reported at the line of the second entry.
    EXPECT_DEATH(PropertyListBuilder::buildBlock({"a", 1}, {"b", 2}, {"a", 3}),
                 "Duplicate key \"a\" in a property-list builder block\n  at "
                 "PropertyListBuilderTests.cpp:");
    EXPECT_DEATH(PropertyListBuilder::buildBlock({"x", std::nullopt}, {"x", std::nullopt}),
                 "Duplicate key \"x\"");
    // Different key types that yield the same text collide too.
    EXPECT_DEATH(PropertyListBuilder::buildBlock({Point::Key::x, 1.0}, {"x", std::optional<int>()}),
                 "Duplicate key \"x\"");
}

}  // namespace
}  // namespace mirels
