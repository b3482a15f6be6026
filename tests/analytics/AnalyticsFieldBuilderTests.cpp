#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "mirels/analytics/AnalyticsFieldBuilder.h"

namespace mirels {
namespace {

struct SampleError {};

TEST(AnalyticsFieldBuilder, EveryAcceptedValueConverts) {
    std::optional<std::string> absentText;
    std::optional<int> presentNumber = 4;
    const char* nullText = nullptr;
    AnalyticsFields fields = AnalyticsFieldBuilder::buildBlock({
        {"literal", "text"},
        {"string", std::string("owned")},
        {"view", std::string_view("view")},
        {"flag", true},
        {"signed", -3},
        {"wide", std::int64_t{-1} << 40},
        {"unsigned", std::uint64_t{std::numeric_limits<std::int64_t>::max()}},
        {"small", std::uint8_t{200}},
        {"real", 0.5f},
        {"bytes", AnalyticsValue::Data{1, 2}},
        {"value", AnalyticsValue::floating(2.5)},
        {"type", AnalyticsFieldBuilder::type<SampleError>()},
        {"absent", absentText},
        {"present", presentNumber},
        {"nullText", nullText},
        {"nothing", std::nullopt},
        {"signed", 7},  // a repeated key keeps the later value
    });
    EXPECT_EQ(fields.size(), 16U);
    EXPECT_EQ(fields.at("literal"), AnalyticsValue::string("text"));
    EXPECT_EQ(fields.at("string"), AnalyticsValue::string("owned"));
    EXPECT_EQ(fields.at("view"), AnalyticsValue::string("view"));
    EXPECT_EQ(fields.at("flag"), AnalyticsValue::boolean(true));
    EXPECT_EQ(fields.at("signed"), AnalyticsValue::integer(7));
    EXPECT_EQ(fields.at("wide"), AnalyticsValue::integer(-(std::int64_t{1} << 40)));
    EXPECT_EQ(fields.at("unsigned"),
              AnalyticsValue::integer(std::numeric_limits<std::int64_t>::max()));
    EXPECT_EQ(fields.at("small"), AnalyticsValue::integer(200));
    EXPECT_EQ(fields.at("real"), AnalyticsValue::floating(0.5));
    EXPECT_EQ(fields.at("bytes"), AnalyticsValue::data({1, 2}));
    EXPECT_EQ(fields.at("value"), AnalyticsValue::floating(2.5));
    EXPECT_EQ(fields.at("type"), AnalyticsValue::string("SampleError"));
    EXPECT_EQ(fields.at("absent"), AnalyticsValue::null());
    EXPECT_EQ(fields.at("present"), AnalyticsValue::integer(4));
    EXPECT_EQ(fields.at("nullText"), AnalyticsValue::null());
    EXPECT_EQ(fields.at("nothing"), AnalyticsValue::null());

    static_assert(!AnalyticsFieldBuilder::accepts<char>);
    static_assert(!AnalyticsFieldBuilder::accepts<int*>);
    static_assert(AnalyticsFieldBuilder::accepts<unsigned long>);
}

TEST(AnalyticsFieldBuilderDeathTest, UnsignedBeyondInt64StopsTheProcess) {
    EXPECT_DEATH(AnalyticsFieldBuilder::buildBlock(
                     {{"big", std::uint64_t{std::numeric_limits<std::int64_t>::max()} + 1}}),
                 "9223372036854775808 does not fit a signed 64-bit integer");
}

}  // namespace
}  // namespace mirels
