#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "mirels/plist/Json.h"
#include "mirels/plist/StructuredDescription.h"

namespace mirels {
namespace {

struct JsonPoint {
    std::int32_t x = 0;
    std::optional<std::int32_t> y;

    static JsonPoint fromJson(const JsonValue& value) {
        const JsonObject object = value.object();
        JsonPoint point;
        point.x = object.decode<std::int32_t>("x");
        point.y = object.decode<std::optional<std::int32_t>>("y");
        return point;
    }
};

/// The error `decode` throws for `text`, as "kind|path|message".
template <class T>
std::string failure(std::string_view text) {
    try {
        (void)decodeJson<T>(text);
    } catch (const JsonDecodingError& error) {
        return std::to_string(static_cast<int>(error.kind())) + "|" + error.path() + "|" +
               error.message();
    }
    return "decoded";
}

using JsonPoints = OrderedDictionary<std::string, std::vector<JsonPoint>>;

TEST(JsonDecodingTests, ErrorsNameTheKeyPathAndWhatWasWrong) {
    using K = JsonDecodingError::Kind;
    auto expect = [](K kind, std::string path, std::string message) {
        return std::to_string(static_cast<int>(kind)) + "|" + path + "|" + message;
    };
    EXPECT_EQ(failure<JsonPoints>(R"({"a":[{"x":1},{"x":2},{"y":3}]})"),
              expect(K::keyNotFound, "a[2].x", "required key is missing"));
    EXPECT_EQ(failure<JsonPoints>(R"({"a":[{"x":"1"}]})"),
              expect(K::typeMismatch, "a[0].x", "expected an integer, found a string"));
    EXPECT_EQ(failure<JsonPoints>(R"({"a":[{"x":null}]})"),
              expect(K::valueNotFound, "a[0].x", "expected an integer, found null"));
    EXPECT_EQ(failure<JsonPoints>(R"({"a":[{"x":2147483648}]})"),
              expect(K::numberOutOfRange, "a[0].x",
                     "the number 2147483648 does not fit a 32-bit signed integer"));
    EXPECT_EQ(failure<JsonPoints>(R"({"a":[{"x":1.5}]})"),
              expect(K::typeMismatch, "a[0].x", "expected an integer, found the number 1.5"));
    EXPECT_EQ(failure<JsonPoints>(R"({"a":{"x":1}})"),
              expect(K::typeMismatch, "a", "expected an array, found an object"));
    EXPECT_EQ(failure<JsonPoints>(R"([1])"),
              expect(K::typeMismatch, "", "expected an object, found an array"));

    // Malformed text of every sort fails at parse time, before any typed read.
    for (std::string_view text : {"", "{", R"({"a":[}])", R"({"a":1} x)", R"({"a":tru})",
                                  "{\"a\":\"\xff\"}", R"({"a":01})", R"({'a':1})"}) {
        const std::string result = failure<JsonPoints>(text);
        EXPECT_TRUE(result.starts_with("0||malformed JSON: ")) << text << " -> " << result;
    }

    // The human-readable texts put the path first.
    try {
        (void)decodeJson<JsonPoints>(R"({"a":[{"x":true}]})");
        ADD_FAILURE();
    } catch (const JsonDecodingError& error) {
        EXPECT_EQ(error.highValueTitle(), "Unable to decode JSON");
        EXPECT_EQ(error.additionalInfo(), "a[0].x: expected an integer, found a boolean");
    }
}

TEST(JsonDecodingTests, OptionalsOrderAndNumbers) {
    // Absent and null optionals read as nothing, unknown keys are ignored, object order is the
    // text's order (not sorted, not hashed), a repeated key keeps its first position.
    const auto points = decodeJson<JsonPoints>(
        R"({"zeta":[{"x":1,"y":null,"other":[1,2,{"deep":true}]}],"alpha":[{"x":-2147483648,"y":7}],"mid":[]})");
    std::vector<std::string> keys;
    for (const auto& [key, value] : points) keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<std::string>{"zeta", "alpha", "mid"}));
    EXPECT_EQ(points.find("zeta")->at(0).y, std::nullopt);
    EXPECT_EQ(points.find("alpha")->at(0).x, std::numeric_limits<std::int32_t>::min());
    EXPECT_EQ(points.find("alpha")->at(0).y, 7);

    // Dates: seconds since 2001 as any JSON number, the double kept exactly.
    EXPECT_EQ(decodeJson<PlistDate>("1234").secondsSinceReferenceDate, 1234.0);
    EXPECT_EQ(decodeJson<PlistDate>("785329451.123456789").secondsSinceReferenceDate,
              785329451.123456789);
    EXPECT_EQ(decodeJson<PlistDate>("-1e3").secondsSinceReferenceDate, -1000.0);
    EXPECT_EQ(failure<PlistDate>(R"("2026-01-01T00:00:00Z")"),
              "2||expected a number, found a string");

    // Integer ranges at both ends, unsigned and 64-bit included; integral doubles are accepted.
    EXPECT_EQ(decodeJson<std::int64_t>("-9223372036854775808"),
              std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(decodeJson<std::uint64_t>("18446744073709551615"),
              std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(decodeJson<std::int32_t>("3.0"), 3);
    EXPECT_EQ(failure<std::int64_t>("9223372036854775808"),
              "4||the number 9223372036854775808 does not fit a 64-bit signed integer");
    EXPECT_EQ(failure<std::uint8_t>("-1"),
              "4||the number -1 does not fit a 8-bit unsigned integer");
    EXPECT_EQ(failure<std::int32_t>("1e10"),
              "4||the number 1e+10 does not fit a 32-bit signed integer");
}

TEST(JsonDecodingTests, WriterOutputAlwaysReadsBack) {
    const std::string awkward = std::string("quote\" backslash\\ tab\t nl\n nul") + '\0' +
                                "\x01 é \xF0\x9F\x98\x80 bad\xff\xc3 end";
    JsonWriter writer;
    writer.beginObject()
        .key(awkward)
        .beginArray()
        .string(awkward)
        .number(0.1)
        .integer(-5)
        .boolean(false)
        .null()
        .number(1.0 / 0.0)
        .endArray()
        .endObject();
    const JsonDocument document = JsonDocument::parse(writer.text());
    const JsonObject object = document.root().object();
    ASSERT_EQ(object.size(), 1u);
    const auto field = *object.begin();
    const std::string expected = std::string("quote\" backslash\\ tab\t nl\n nul") + '\0' +
                                 "\x01 é \xF0\x9F\x98\x80 bad\xEF\xBF\xBD\xEF\xBF\xBD end";
    EXPECT_EQ(field.key, expected);
    const auto values = decodeJson<std::vector<std::optional<std::string>>>(R"(["a", null])");
    EXPECT_EQ(values, (std::vector<std::optional<std::string>>{"a", std::nullopt}));
    const JsonArray array = field.value.array();
    std::vector<JsonValue::Kind> kinds;
    for (const JsonValue value : array) kinds.push_back(value.kind());
    EXPECT_EQ(kinds, (std::vector<JsonValue::Kind>{
                         JsonValue::Kind::string, JsonValue::Kind::number, JsonValue::Kind::integer,
                         JsonValue::Kind::boolean, JsonValue::Kind::null, JsonValue::Kind::null}));
    EXPECT_EQ((*array.begin()).string(), expected);
}

TEST(StructuredDescriptionTests, NestedActionsIndentTwoSpacesPerLevel) {
    using A = StructuredDescriptionBuildAction;
    const std::vector<A> actions = {
        A::line("Top"),
        A::keyValue("Key", "value"),
        A::section("Section:", {A::line("inner"),
                                A::group("Group", {A::keyValue("k", "two\nlines"), A::line("")})}),
        A::line("multi\nline"),
    };
    EXPECT_EQ(renderStructuredDescription(actions),
              "Top\nKey: value\nSection:\n  inner\n  Group\n    k: two\n      lines\n    \n"
              "multi\nline");
    EXPECT_EQ(renderStructuredDescriptionLines(actions).size(), 10u);
    EXPECT_EQ(renderStructuredDescription({}), "");

    // Nesting renders level by level.
    A deep = A::line("leaf");
    for (int i = 0; i < 1000; ++i) {
        std::vector<A> children;
        children.push_back(std::move(deep));
        deep = A::group("g", std::move(children));
    }
    std::vector<A> top;
    top.push_back(std::move(deep));
    const auto lines = renderStructuredDescriptionLines(top);
    ASSERT_EQ(lines.size(), 1001u);
    EXPECT_EQ(lines.back(), std::string(2000, ' ') + "leaf");
}

}  // namespace
}  // namespace mirels
