#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "../support/Files.h"
#include "errors/RemoteErrorScenarios.h"
#include "mirels/plist/PlistSerialization.h"
#include "platform/ChildProcess.h"

namespace mirels {
namespace {

using testing::readFile;

namespace fs = std::filesystem;

class RemoteErrorTest : public ::testing::TestWithParam<const char*> {
  protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "mirels-remote-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory_ = pattern;
    }
    void TearDown() override { fs::remove_all(directory_); }

    /// Runs the probe for `scenario` in a child process; the error it packed, rebuilt here.
    HumanReadableErrorRef receive(std::string_view scenario, PlistDictionary& expected) {
        fs::path output = directory_ / (std::string(scenario) + "." + GetParam());
        auto child =
            testing::runChild(std::string(MIRELS_TEST_PROGRAM_DIR) + "/errors_remote_probe",
                              {std::string(scenario), GetParam(), output.string()}, {});
        EXPECT_EQ(child.exitCode, 0);
        std::string packed = readFile(output);
        EXPECT_EQ(packed.starts_with("bplist"), std::string_view(GetParam()) == "binary");
        expected =
            *parsePropertyList(readFile(output.string() + ".expected")).getIf<PlistDictionary>();
        PlatformError platform =
            PlatformError::fromPropertyListValue(parsePropertyListDictionary(packed));
        EXPECT_EQ(platform.domain(), mirelsErrorDomain);
        EXPECT_EQ(platform.code(), -1);
        EXPECT_EQ(platform.userInfo().size(), 2u);
        return humanReadable(Error(platform));
    }

    fs::path directory_;
};

TEST_P(RemoteErrorTest, EveryScenarioSurvivesTheTripBetweenProcesses) {
    for (std::string_view scenario : testing::remoteScenarios) {
        SCOPED_TRACE(scenario);
        PlistDictionary expected;
        HumanReadableErrorRef received = receive(scenario, expected);
        EXPECT_EQ(testing::summarize(*received), expected);
    }
}

TEST_P(RemoteErrorTest, TextsOfTheRebuiltErrorsAreTheSendersOwn) {
    PlistDictionary expected;
    HumanReadableErrorRef leaf = receive("leaf", expected);
    EXPECT_NE(dynamic_cast<const RemoteHumanReadableError*>(leaf.get()), nullptr);
    EXPECT_EQ(leaf->effectiveTitle(), "Disk full");
    EXPECT_EQ(leaf->additionalInfo(), "Free some space on “Backup”\\nthen try again.");
    EXPECT_EQ(leaf->options(), HumanReadableErrorOptions{12});
    EXPECT_TRUE(leaf->isNativeHumanReadable());

    HumanReadableErrorRef foreign = receive("foreign", expected);
    EXPECT_EQ(foreign->additionalDiagnostics(), "int: 42");
    EXPECT_FALSE(foreign->isNativeHumanReadable());

    HumanReadableErrorRef exception = receive("exception", expected);
    EXPECT_EQ(exception->lowValueTitle(), "IndexOutOfRange");
    EXPECT_EQ(exception->additionalDiagnostics(),
              "org.mirels.foundation.ExceptionError (0):\n==LocalizedFailureReason: index 3 "
              "beyond bounds [0 .. 2]");

    // Tracked wrapper over (DiskFullError over (the write failure over the runtime error)).
    HumanReadableErrorRef nested = receive("nested", expected);
    const auto* tracked = dynamic_cast<const UnderlyingErrorWrapper*>(nested.get());
    ASSERT_NE(tracked, nullptr);
    EXPECT_TRUE(tracked->underlying()->lowValueTitle()->starts_with("errors_remote_probe.cpp:") ||
                tracked->underlying()->lowValueTitle()->starts_with("RemoteErrorScenarios.h:"));
    const auto* chain = dynamic_cast<const UnderlyingErrorWrapper*>(tracked->main().get());
    ASSERT_NE(chain, nullptr);
    const auto* write = dynamic_cast<const UnderlyingErrorWrapper*>(chain->underlying().get());
    ASSERT_NE(write, nullptr);
    EXPECT_EQ(write->main()->lowValueTitle(), "The file could not be written");
    EXPECT_EQ(write->underlying()->additionalDiagnostics(), "runtime_error: permission denied");
    EXPECT_EQ(nested->effectiveTitle(), "Disk full");
}

INSTANTIATE_TEST_SUITE_P(Formats, RemoteErrorTest, ::testing::Values("xml", "binary"));

}  // namespace
}  // namespace mirels
