#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "mirels/core/UUID.h"
#include "mirels/plist/Json.h"
#include "mirels/plist/PropertyListError.h"
#include "mirels/plist/SafeDecodable.h"

namespace mirels {
namespace {

struct Limits {
    std::int32_t width;
    std::int32_t height;

    static Limits fromJson(const JsonValue& value) {
        const JsonObject object = value.object();
        return Limits{object.decode<std::int32_t>("width"), object.decode<std::int32_t>("height")};
    }
};

struct DecodedSettings {
    SafeDecodable<std::string> name;
    SafeDecodableArray<Limits> limits;
    SafeDecodableDictionary<UUID, std::uint8_t> levels;

    static DecodedSettings fromJson(const JsonValue& value) {
        const JsonObject object = value.object();
        return DecodedSettings{
            SafeDecodable<std::string>::fromJson(object, "name"),
            object.decode<SafeDecodableArray<Limits>>("limits"),
            object.decode<SafeDecodableDictionary<UUID, std::uint8_t>>("levels")};
    }
};

TEST(SafeDecodable, JsonKeepsTheGoodSkipsTheBadAndNamesEachPath) {
    const auto settings = decodeJson<DecodedSettings>(R"({
        "limits": [{"width": 1, "height": 2}, {"width": "wide", "height": 2}, {"width": 5},
                   {"width": 3, "height": 4}],
        "levels": {"123e4567-e89b-42d3-a456-426614174000": 7, "not-a-uuid": 1,
                   "00000000-0000-0000-0000-000000000001": 300}
    })");
    // A missing key is a kept failure, not a thrown one.
    EXPECT_FALSE(settings.name.hasValue());
    ASSERT_TRUE(settings.name.error());
    EXPECT_EQ(settings.name.error()->path(), "name");

    ASSERT_EQ(settings.limits.size(), 2U);
    EXPECT_EQ(settings.limits[0].width, 1);
    EXPECT_EQ(settings.limits[1].width, 3);
    EXPECT_EQ(settings.limits.failedIndices(), (std::vector<std::size_t>{1, 2}));
    ASSERT_EQ(settings.limits.failures().size(), 2U);
    EXPECT_EQ(settings.limits.failures()[0].path(), "limits[1]");
    EXPECT_EQ(settings.limits.failures()[0].additionalInfo(),
              "The value at \"limits[1]\" was skipped: limits[1].width: expected an integer, found "
              "a string");
    EXPECT_EQ(settings.limits.failures()[1].path(), "limits[2]");
    const auto* missing = settings.limits.failures()[1].underlying().as<JsonDecodingError>();
    ASSERT_NE(missing, nullptr);
    EXPECT_EQ(missing->kind(), JsonDecodingError::Kind::keyNotFound);

    // Keys that are no UUID and values out of range are skipped per entry.
    ASSERT_EQ(settings.levels.size(), 1U);
    EXPECT_EQ(settings.levels.entries().begin()->second, 7);
    EXPECT_EQ(settings.levels.failedKeys(),
              (std::vector<std::string>{"not-a-uuid", "00000000-0000-0000-0000-000000000001"}));
    EXPECT_NE(settings.levels.failures()[0].underlying().as<InvalidUUID>(), nullptr);
    EXPECT_EQ(settings.levels.failures()[1].underlying().as<JsonDecodingError>()->kind(),
              JsonDecodingError::Kind::numberOutOfRange);

    // The container itself must be of the right kind, unless it is wrapped too.
    EXPECT_THROW((void)decodeJson<SafeDecodableArray<int>>(R"({"a": 1})"), JsonDecodingError);
    const auto wrapped = decodeJson<SafeDecodable<SafeDecodableArray<int>>>(R"({"a": 1})");
    EXPECT_FALSE(wrapped.hasValue());
    EXPECT_EQ(wrapped.error()->path(), "");
    EXPECT_EQ(wrapped.error()->additionalInfo()->rfind("The top-level value was skipped: ", 0), 0U);
}

TEST(SafeDecodable, PropertyListsAndReportingFailuresAsIssues) {
    PlistDictionary dictionary;
    dictionary["ids"] =
        PlistValue(PlistArray{PlistValue(std::string("123e4567-e89b-42d3-a456-426614174000")),
                              PlistValue(std::int64_t{5}), PlistValue(std::string("bad"))});
    dictionary["sizes"] = PlistValue(
        PlistDictionary{{"a", PlistValue(std::int64_t{1})}, {"b", PlistValue(std::string("two"))}});
    dictionary["count"] = PlistValue(std::string("three"));
    const PropertyList list(std::move(dictionary));

    const auto ids = SafeDecodableArray<UUID>::fromPropertyList(list, "ids");
    ASSERT_EQ(ids.size(), 1U);
    EXPECT_EQ(ids[0].uuidString(), "123e4567-e89b-42d3-a456-426614174000");
    EXPECT_EQ(ids.failedIndices(), (std::vector<std::size_t>{1, 2}));
    EXPECT_EQ(ids.failures()[0].path(), "ids[1]");
    EXPECT_EQ(ids.failures()[0].underlying().as<PropertyListError>()->kind(),
              PropertyListError::Kind::invalidValue);
    EXPECT_NE(ids.failures()[1].underlying().as<InvalidUUID>(), nullptr);

    const auto sizes = SafeDecodableDictionary<std::string, int>::fromPropertyList(list, "sizes");
    ASSERT_EQ(sizes.size(), 1U);
    EXPECT_EQ(sizes.entries().begin()->first, "a");
    EXPECT_EQ(sizes.failures()[0].path(), "sizes.b");

    const auto count = SafeDecodable<int>::fromPropertyList(list, "count");
    EXPECT_FALSE(count.hasValue());
    EXPECT_EQ(count.error()->path(), "count");
    EXPECT_EQ(SafeDecodable<std::string>::fromPropertyList(list, "count").value(), "three");
    EXPECT_THROW((void)SafeDecodableArray<int>::fromPropertyList(list, "absent"),
                 PropertyListError);

    DiagnosticsCollector collector;
    ids.reportFailures(collector);
    count.reportFailures(collector, Issue::Severity::error);
    const std::vector<Issue> issues = collector.issues();
    ASSERT_EQ(issues.size(), 3U);
    EXPECT_EQ(issues[0].severity(), Issue::Severity::warning);
    EXPECT_EQ(issues[0].message(), "Skipped a value that could not be decoded");
    EXPECT_NE(issues[1].error()->fullDiagnosticsOutput().find("\"ids[2]\""), std::string::npos);
    EXPECT_EQ(issues[2].severity(), Issue::Severity::error);
}

}  // namespace
}  // namespace mirels
