#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "../support/Files.h"
#include "mirels/platform/Log.h"
#include "mirels/plist/PlistSerialization.h"
#include "mirels/version/UserDefaults.h"
#include "support/TemporaryDirectory.h"

namespace mirels {
namespace {

using testing::writeFile;

namespace fs = std::filesystem;

class UserDefaultsTest : public ::testing::Test {
  protected:
    testing::TemporaryDirectory folder_{"mirels-defaults"};
};

TEST_F(UserDefaultsTest, SetAndRemoveRoundTripThroughTheFile) {
    fs::path file = folder_.path() / "nested" / "org.mirels.test.plist";
    UserDefaults defaults("org.mirels.test", file);
    EXPECT_EQ(defaults.object("missing"), std::nullopt);
    EXPECT_FALSE(fs::exists(file));

    defaults.set("flag", false);
    defaults.set("name", "Grid");
    defaults.set("count", std::int64_t{-3});
    defaults.set("list", PlistArray{1, "two"});
    EXPECT_EQ(defaults.boolean("flag"), false);
    EXPECT_EQ(defaults.string("name"), "Grid");
    EXPECT_EQ(defaults.integer("count"), -3);
    // Typed reads of another kind are absent, not converted.
    EXPECT_EQ(defaults.boolean("count"), std::nullopt);
    EXPECT_EQ(defaults.integer("name"), std::nullopt);
    EXPECT_EQ(defaults.object("list"), PlistValue(PlistArray{1, "two"}));

    // The file is an XML property list that a second store on the same file reads.
    std::ifstream stream(file);
    std::string contents((std::istreambuf_iterator<char>(stream)), {});
    EXPECT_NE(contents.find("<?xml"), std::string::npos);
    UserDefaults other("org.mirels.test", file);
    EXPECT_EQ(other.string("name"), "Grid");

    // Changes made through one store are seen by the other.
    other.remove("name");
    other.set("flag", true);
    EXPECT_EQ(defaults.string("name"), std::nullopt);
    EXPECT_EQ(defaults.boolean("flag"), true);
    EXPECT_EQ(defaults.dictionaryRepresentation().size(), 3U);
    // A value that cannot be stored throws and changes nothing.
    EXPECT_THROW(defaults.set("bad", std::string("a\0b", 3)), PropertyListSerializationError);
    EXPECT_EQ(defaults.object("bad"), std::nullopt);

    // No temporary files are left behind.
    EXPECT_EQ(std::distance(fs::directory_iterator(file.parent_path()), fs::directory_iterator()),
              1);
}

TEST_F(UserDefaultsTest, DamagedFilesReadAsEmptyAndAreLoggedOnce) {
    struct Case {
        std::string contents;
        std::string reason;
    };
    std::string valid = toXML(PlistDictionary{{"QKLogCoreTally", false}, {"k", "v"}});
    std::vector<Case> cases = {
        {"", "empty input"},
        {valid.substr(0, valid.size() / 2), "malformed"},
        {toXML(PlistArray{true}), "the top level is a Array, not a Dictionary"},
        {std::string("\x01\xff garbage \x00\x7f", 14), "not a property list"},
        {"bplist00 garbage", "damaged binary property list"},
    };
    for (const Case& damaged : cases) {
        SCOPED_TRACE(damaged.reason);
        fs::path file = folder_.path() / "damaged.plist";
        writeFile(file, damaged.contents);
        ScopedLogCapture capture;
        UserDefaults defaults("damaged", file);
        EXPECT_EQ(defaults.boolean("QKLogCoreTally"), std::nullopt);
        EXPECT_EQ(defaults.object("k"), std::nullopt);
        auto entries = capture->entries("org.mirels.foundation", "defaults");
        ASSERT_EQ(entries.size(), 1U);
        EXPECT_EQ(entries[0].level, LogLevel::error);
        EXPECT_NE(entries[0].message.find(file.string()), std::string::npos);
        EXPECT_NE(entries[0].message.find(damaged.reason), std::string::npos) << entries[0].message;

        // Writing replaces the damaged file with a good one.
        defaults.set("k", "fixed");
        EXPECT_EQ(UserDefaults("damaged", file).string("k"), "fixed");
        EXPECT_EQ(capture->entries().size(), 1U);
    }
}

TEST_F(UserDefaultsTest, FileLocationFollowsTheEnvironment) {
    std::string savedXDG = ::getenv("XDG_CONFIG_HOME") ? ::getenv("XDG_CONFIG_HOME") : "";
    std::string savedHome = ::getenv("HOME") ? ::getenv("HOME") : "";
    ::setenv("XDG_CONFIG_HOME", "/xdg", 1);
    ::setenv("HOME", "/home/someone", 1);
    EXPECT_EQ(UserDefaults::fileForDomain("a.b"), fs::path("/xdg/mirels/a.b.plist"));
    ::setenv("XDG_CONFIG_HOME", "relative", 1);
    EXPECT_EQ(UserDefaults::fileForDomain("a.b"),
              fs::path("/home/someone/.config/mirels/a.b.plist"));
    ::setenv("XDG_CONFIG_HOME", savedXDG.c_str(), 1);
    ::setenv("HOME", savedHome.c_str(), 1);
    EXPECT_EQ(UserDefaults::standard().domain(), "org.mirels.foundation");
    EXPECT_DEATH(UserDefaults("../escape"), "domain must be a file name");
}

TEST_F(UserDefaultsTest, ConcurrentWritersKeepEveryKey) {
    fs::path file = folder_.path() / "shared.plist";
    UserDefaults defaults("shared", file);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&defaults, t] {
            for (int i = 0; i < 10; ++i) {
                defaults.set("key" + std::to_string(t) + "_" + std::to_string(i), i);
                (void)defaults.integer("key0_0");
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(UserDefaults("shared", file).dictionaryRepresentation().size(), 40U);
}

}  // namespace
}  // namespace mirels
