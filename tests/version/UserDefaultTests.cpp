#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "mirels/platform/Log.h"
#include "mirels/version/UserDefault.h"
#include "support/TemporaryDirectory.h"

namespace mirels {

enum class Theme { light, dark };

template <>
struct RawValueCases<Theme> {
    static constexpr std::array<std::pair<Theme, std::string_view>, 2> cases = {
        {{Theme::light, "light"}, {Theme::dark, "dark"}}};
};

namespace {

class UserDefaultTest : public ::testing::Test {
  protected:
    testing::TemporaryDirectory folder_{"mirels-user-default"};
    UserDefaults defaults_{"org.mirels.test", folder_ / "org.mirels.test.plist"};
};

// A second wrapper over the same store and key reads what the first one wrote.
template <class T>
T readBack(UserDefaults& defaults, const std::string& key, T fallback) {
    UserDefault<T> fresh(key, std::move(fallback), defaults);
    return fresh.wrappedValue();
}

TEST_F(UserDefaultTest, EveryRepresentableKindRoundTripsThroughTheStore) {
    UserDefault<bool> flag("flag", false, defaults_);
    EXPECT_EQ(flag.key(), "flag");
    EXPECT_EQ(flag.cachedValue(), std::nullopt);
    EXPECT_FALSE(flag.wrappedValue());  // unset: the default
    EXPECT_EQ(flag.cachedValue(), false);
    flag.setWrappedValue(true);
    EXPECT_TRUE(flag.wrappedValue());
    EXPECT_EQ(defaults_.boolean("flag"), true);

    UserDefault<std::int32_t> count("count", 7, defaults_);
    count.setWrappedValue(-12);
    EXPECT_EQ(readBack<std::int32_t>(defaults_, "count", 0), -12);
    UserDefault<double> ratio("ratio", 0.5, defaults_);
    ratio.setWrappedValue(-0.25);
    EXPECT_EQ(readBack(defaults_, "ratio", 0.0), -0.25);
    UserDefault<std::string> name("name", "none", defaults_);
    name.setWrappedValue("Grid \xE2\x9C\x93");
    EXPECT_EQ(readBack<std::string>(defaults_, "name", ""), "Grid \xE2\x9C\x93");
    const auto when = std::chrono::system_clock::time_point(std::chrono::seconds(1700000000));
    UserDefault<std::chrono::system_clock::time_point> date("date", {}, defaults_);
    date.setWrappedValue(when);
    EXPECT_EQ(readBack<std::chrono::system_clock::time_point>(defaults_, "date", {}), when);
    UserDefault<PlistData> bytes("bytes", {}, defaults_);
    bytes.setWrappedValue(PlistData{0, 1, 255});
    EXPECT_EQ(readBack<PlistData>(defaults_, "bytes", {}), (PlistData{0, 1, 255}));
    using Names = std::vector<std::string>;
    UserDefault<Names> names("names", {}, defaults_);
    names.setWrappedValue({"a", "b"});
    EXPECT_EQ(readBack<Names>(defaults_, "names", {}), (Names{"a", "b"}));
    using Sizes = std::map<std::string, std::int64_t>;
    UserDefault<Sizes> sizes("sizes", {}, defaults_);
    sizes.setWrappedValue({{"w", 3}, {"h", 4}});
    EXPECT_EQ(readBack<Sizes>(defaults_, "sizes", {}), (Sizes{{"w", 3}, {"h", 4}}));
    UserDefault<Theme> theme("theme", Theme::light, defaults_);
    theme.setWrappedValue(Theme::dark);
    EXPECT_EQ(defaults_.string("theme"), "dark");
    EXPECT_EQ(readBack(defaults_, "theme", Theme::light), Theme::dark);
}

TEST_F(UserDefaultTest, OptionalsReadUnsetAsAbsentAndRemoveTheKeyWhenCleared) {
    UserDefault<std::optional<std::int64_t>> limit("limit", std::nullopt, defaults_);
    EXPECT_EQ(limit.wrappedValue(), std::nullopt);
    limit.setWrappedValue(40);
    EXPECT_EQ(defaults_.integer("limit"), 40);
    EXPECT_EQ(readBack<std::optional<std::int64_t>>(defaults_, "limit", std::nullopt), 40);
    limit.setWrappedValue(std::nullopt);
    EXPECT_EQ(defaults_.object("limit"), std::nullopt);
    EXPECT_EQ(limit.wrappedValue(), std::nullopt);
    EXPECT_EQ(UserDefaultTraits<std::optional<std::int64_t>>::fromUserDefaults(defaults_, "limit"),
              std::nullopt);
}

TEST_F(UserDefaultTest, AValueOfTheWrongKindReadsAsTheDefaultAndIsLogged) {
    defaults_.set("flag", std::int64_t{1});  // an integer is not a boolean
    defaults_.set("theme", "sepia");         // no such case
    defaults_.set("names", PlistArray{"a", 2});
    ScopedLogCapture capture;
    UserDefault<bool> flag("flag", true, defaults_);
    UserDefault<Theme> theme("theme", Theme::light, defaults_);
    UserDefault<std::vector<std::string>> names("names", {"x"}, defaults_);
    UserDefault<std::optional<double>> ratio("flag", 2.5, defaults_);  // reads the integer 1
    EXPECT_TRUE(flag.wrappedValue());
    EXPECT_EQ(theme.wrappedValue(), Theme::light);
    EXPECT_EQ(names.wrappedValue(), std::vector<std::string>{"x"});
    EXPECT_EQ(ratio.wrappedValue(), 1.0);  // an integer that a double holds exactly converts
    const auto entries = capture->entries("org.mirels.foundation", "defaults");
    ASSERT_EQ(entries.size(), 3U);
    EXPECT_EQ(entries[0].level, LogLevel::error);
    EXPECT_NE(entries[0].message.find("flag"), std::string::npos) << entries[0].message;
    EXPECT_NE(entries[1].message.find("sepia"), std::string::npos) << entries[1].message;
}

TEST_F(UserDefaultTest, TheCacheKeepsItsValueUntilReloaded) {
    UserDefault<std::string> name("name", "none", defaults_);
    EXPECT_EQ(name.wrappedValue(), "none");
    // Another writer of the same file (as another process would be).
    UserDefaults other("org.mirels.test", defaults_.file());
    other.set("name", "changed");
    EXPECT_EQ(name.wrappedValue(), "none");
    name.reload();
    EXPECT_EQ(name.wrappedValue(), "changed");

    // Readers racing a writer always see a whole value.
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&name, t] {
            for (int i = 0; i < 50; ++i) {
                if (t == 0) {
                    name.setWrappedValue("value" + std::to_string(i));
                } else {
                    const std::string value = name.wrappedValue();
                    EXPECT_TRUE(value == "changed" || value.starts_with("value")) << value;
                    if (i % 10 == 0) name.reload();
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(name.wrappedValue(), "value49");
}

}  // namespace
}  // namespace mirels
