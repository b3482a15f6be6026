#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "mirels/platform/ProcessInfo.h"
#include "mirels/plist/PlistSerialization.h"
#include "mirels/version/HostBundle.h"
#include "platform/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace mirels {
namespace {

namespace fs = std::filesystem;

TEST(HostBundle, NearestContentsAncestorNamesTheBundle) {
    EXPECT_EQ(hostBundlePath("/opt/FakeHost/Contents/bin/tool"), fs::path("/opt/FakeHost"));
    EXPECT_EQ(hostBundlePath("/x/Outer/Contents/Inner/Contents/bin/tool"),
              fs::path("/x/Outer/Contents/Inner"));
    EXPECT_EQ(hostBundlePath("/Contents/tool"), fs::path("/"));
    EXPECT_EQ(hostBundlePath("/usr/bin/tool"), std::nullopt);
    EXPECT_EQ(hostBundlePath("/a/Contents"), std::nullopt);  // the executable itself is no folder
    EXPECT_EQ(hostBundlePath("tool"), std::nullopt);

    EXPECT_EQ(processName(), "mirels_tests");
    EXPECT_EQ(hostBundleBuildVersion(), std::nullopt);  // the test binary is in no bundle
}

class FakeBundleTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories(folder_.path() / "FakeHost" / "Contents" / "bin");
        fs::create_directories(folder_.path() / "xdg");
        probe_ = folder_.path() / "FakeHost" / "Contents" / "bin" / "platform_core_tally_probe";
        fs::copy_file(fs::path(MIRELS_TEST_PROGRAM_DIR) / "platform_core_tally_probe", probe_);
        fs::permissions(probe_, fs::perms::owner_all);
    }

    void writeVersionRecord(const PlistValue& record) {
        std::ofstream(folder_.path() / "FakeHost" / "Contents" / "version.plist") << toXML(record);
    }
    std::string runProbe() {
        auto result = testing::runChild(probe_.string(), {"log"},
                                        {{"XDG_CONFIG_HOME", (folder_.path() / "xdg").string()}});
        EXPECT_EQ(result.exitCode, 0);
        return result.output;
    }

    testing::TemporaryDirectory folder_{"mirels-bundle"};
    fs::path probe_;
};

TEST_F(FakeBundleTest, BuildVersionComesFromTheBundlesVersionRecord) {
    writeVersionRecord(PlistDictionary{{"ProductBuildVersion", "24A335"}, {"Other", 1}});
    EXPECT_EQ(bundleBuildVersion(folder_.path() / "FakeHost"), "24A335");
    EXPECT_EQ(hostBundleBuildVersion(probe_), "24A335");
    EXPECT_EQ(runProbe(),
              "events=1\n"
              "event org.mirels.foundation.probe responsibleProcess=platform_core_tally_probe "
              "kestrelVersion=24A335\n"
              "hostBundleBuildVersion=24A335\n");
}

TEST_F(FakeBundleTest, MissingOrUnusableVersionRecordGivesNull) {
    const std::string noVersion =
        "events=1\n"
        "event org.mirels.foundation.probe responsibleProcess=platform_core_tally_probe "
        "kestrelVersion=null\n"
        "hostBundleBuildVersion=(none)\n";
    EXPECT_EQ(runProbe(), noVersion);

    writeVersionRecord(PlistDictionary{{"ProductBuildVersion", 24}});
    EXPECT_EQ(bundleBuildVersion(folder_.path() / "FakeHost"), std::nullopt);
    EXPECT_EQ(runProbe(), noVersion);

    std::ofstream(folder_.path() / "FakeHost" / "Contents" / "version.plist") << "<plist><dict>";
    EXPECT_EQ(bundleBuildVersion(folder_.path() / "FakeHost"), std::nullopt);
}

}  // namespace
}  // namespace mirels
