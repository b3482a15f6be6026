#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <unordered_set>
#include <vector>

#include "mirels/platform/Log.h"
#include "mirels/version/BuildNumber.h"
#include "support/SoftAssertions.h"
#include "support/TemporaryDirectory.h"

namespace mirels {
namespace {

namespace fs = std::filesystem;
using Case = BuildNumber::Invalid::Case;

std::optional<Case> invalidCase(std::string_view text) {
    try {
        BuildNumber parsed(text);
        (void)parsed;
        return std::nullopt;
    } catch (const BuildNumber::Invalid& error) {
        return error.failedPart();
    }
}

TEST(BuildNumberTest, ParsesThePartsAndReportsTheFirstPartThatFails) {
    const BuildNumber build("21C5021a");
    EXPECT_EQ(build.majorRelease(), 21);
    EXPECT_EQ(build.rawMinorRelease(), 'C');
    EXPECT_EQ(build.majorBuild(), 5021);
    EXPECT_EQ(build.rawMinorBuild(), 'a');
    EXPECT_EQ(BuildNumber("1a1").rawMinorRelease(), 'a');  // stored as given
    EXPECT_EQ(BuildNumber("9223372036854775807Z9223372036854775807"), BuildNumber::distantFuture());

    EXPECT_EQ(invalidCase(""), Case::majorRelease);
    EXPECT_EQ(invalidCase("0A1"), Case::majorRelease);
    EXPECT_EQ(invalidCase("-3A1"), Case::majorRelease);
    EXPECT_EQ(invalidCase("A1"), Case::majorRelease);
    EXPECT_EQ(invalidCase(" 1A1"), Case::majorRelease);
    // Too large for 64 bits: invalid for its part, never wrapped.
    EXPECT_EQ(invalidCase("9223372036854775808A1"), Case::majorRelease);
    EXPECT_EQ(invalidCase("18446744073709551617A1"), Case::majorRelease);
    EXPECT_EQ(invalidCase("21"), Case::minorRelease);
    EXPECT_EQ(invalidCase("21-5"), Case::minorRelease);
    EXPECT_EQ(invalidCase("21\xC3\xA9"
                          "5"),
              Case::minorRelease);  // letters are ASCII letters
    EXPECT_EQ(invalidCase("21C"), Case::majorBuild);
    EXPECT_EQ(invalidCase("21C0"), Case::majorBuild);
    EXPECT_EQ(invalidCase("21CC5"), Case::majorBuild);
    EXPECT_EQ(invalidCase("21C9223372036854775808"), Case::majorBuild);
    EXPECT_EQ(invalidCase("21C5021-"), Case::minorBuild);
    EXPECT_EQ(invalidCase("21C5021 "), Case::minorBuild);
    EXPECT_EQ(invalidCase("21C5021\xC3\xA9"), Case::minorBuild);
    EXPECT_EQ(invalidCase("21C5021a1"), Case::trailingCharacters);
    EXPECT_EQ(invalidCase("21C5021ab"), Case::trailingCharacters);
    EXPECT_EQ(invalidCase(std::string_view("21C5021a\0", 9)), Case::trailingCharacters);

    try {
        BuildNumber parsed("21C");
        (void)parsed;
        FAIL() << "parsed";
    } catch (const BuildNumber::Invalid& error) {
        EXPECT_EQ(error.string(), "21C");
        EXPECT_EQ(error.message(),
                  "Invalid build number \"21C\": expected a build number of at least 1 after the "
                  "release-train letter.");
        EXPECT_NE(std::string(error.what()).find(error.message()), std::string::npos);
        EXPECT_EQ(error, BuildNumber::Invalid::majorBuild());
        EXPECT_FALSE(error == BuildNumber::Invalid::minorBuild());
    }
}

TEST(BuildNumberTest, DescriptionNormalisesLettersAndReadsBackEqual) {
    EXPECT_EQ(BuildNumber(21, 'c', 5021, 'A').description(), "21C5021a");
    EXPECT_EQ(BuildNumber::distantPast().description(), "1A1");
    EXPECT_EQ(BuildNumber::distantFuture().description(),
              "9223372036854775807Z9223372036854775807");
    std::ostringstream stream;
    stream << BuildNumber("20a5B");
    EXPECT_EQ(stream.str(), "20A5b");
    for (const char* text : {"1A1", "21c5021A", "7z99999999999b"}) {
        const BuildNumber build(text);
        EXPECT_EQ(BuildNumber(build.description()), build);
    }
}

TEST(BuildNumberTest, EqualityHashAndOrderUseTheNormalisedParts) {
    const std::hash<BuildNumber> hash;
    EXPECT_EQ(BuildNumber("1a1"), BuildNumber("1A1"));
    EXPECT_EQ(hash(BuildNumber("1a1")), hash(BuildNumber("1A1")));
    EXPECT_EQ(BuildNumber("20A5a"), BuildNumber("20A5A"));
    EXPECT_EQ(hash(BuildNumber("20A5a")), hash(BuildNumber("20A5A")));
    EXPECT_NE(BuildNumber("20A5"), BuildNumber("20A5a"));
    EXPECT_NE(BuildNumber("20A5"), BuildNumber("20A6"));
    EXPECT_NE(BuildNumber("20A5"), BuildNumber("21A5"));
    EXPECT_NE(BuildNumber("20A5"), BuildNumber("20B5"));

    EXPECT_LT(BuildNumber("20A5"), BuildNumber("20A5a"));
    EXPECT_FALSE(BuildNumber("20A5a") < BuildNumber("20A5"));
    EXPECT_FALSE(BuildNumber("20A5") < BuildNumber("20A5"));
    EXPECT_LT(BuildNumber("20A5a"), BuildNumber("20A5b"));
    EXPECT_LT(BuildNumber("20A5A"), BuildNumber("20A5b"));
    EXPECT_FALSE(BuildNumber("20A5B") < BuildNumber("20A5a"));
    // Each step decides before the next: release, train, build, suffix.
    EXPECT_LT(BuildNumber("9Z99z"), BuildNumber("10A1"));
    EXPECT_LT(BuildNumber("10a99z"), BuildNumber("10B1"));
    EXPECT_LT(BuildNumber("10B9z"), BuildNumber("10b10"));
    EXPECT_LT(BuildNumber::distantPast(), BuildNumber("1A2"));
    EXPECT_LT(BuildNumber("999Z999999z"), BuildNumber::distantFuture());

    std::vector<BuildNumber> builds = {BuildNumber("20A5b"), BuildNumber("20A5"),
                                       BuildNumber("19Z1"), BuildNumber("20a5A")};
    std::sort(builds.begin(), builds.end());
    std::vector<std::string> texts;
    for (const auto& build : builds) texts.push_back(build.description());
    EXPECT_EQ(texts, (std::vector<std::string>{"19Z1", "20A5", "20A5a", "20A5b"}));
    std::unordered_set<BuildNumber> set(builds.begin(), builds.end());
    set.insert(BuildNumber("20a5B"));
    EXPECT_EQ(set.size(), 4U);
}

TEST(BuildNumberTest, CreateConfidentlyFallsBackToTheDistantFutureAndReportsIt) {
    testing::SoftAssertionRecorder recorder;
    EXPECT_EQ(BuildNumber::createConfidently("21C5021a"), BuildNumber("21C5021a"));
    EXPECT_EQ(recorder.count(), 0U);
    EXPECT_EQ(BuildNumber::createConfidently(""), BuildNumber::distantFuture());
    EXPECT_EQ(BuildNumber::createConfidently("21C5021a1"), BuildNumber::distantFuture());
    ASSERT_EQ(recorder.count(), 2U);
    EXPECT_TRUE(recorder.files()[0].starts_with("BuildNumber.cpp:")) << recorder.files()[0];
}

class CurrentBuildTest : public ::testing::Test {
  protected:
    fs::path write(const std::string& name, std::string_view contents) {
        fs::path file = folder_ / name;
        std::ofstream(file, std::ios::binary) << contents;
        return file;
    }
    testing::TemporaryDirectory folder_{"mirels-os-release"};
};

TEST_F(CurrentBuildTest, ReadsBuildIdFromTheFirstRecordThatExists) {
    const fs::path missing = folder_ / "missing";
    const fs::path first =
        write("etc", "NAME=\"Test OS\"\n# BUILD_ID=1A1\nBUILD_ID=\"21C5021a\"\n");
    const fs::path second = write("usr", "BUILD_ID=30Z1\n");
    std::vector<fs::path> files = {missing, first, second};
    EXPECT_EQ(BuildNumber::systemBuildString(files), "21C5021a");
    EXPECT_EQ(BuildNumber::currentReadingFrom(files), BuildNumber("21C5021a"));
    files = {missing, second};
    EXPECT_EQ(BuildNumber::currentReadingFrom(files), BuildNumber("30Z1"));
    // Quoting and escapes as the shell reads them; a later assignment wins.
    const fs::path quoted = write("quoted", "BUILD_ID='7A1'\nBUILD_ID=\"7\\B2\" \n");
    files = {quoted};
    EXPECT_EQ(BuildNumber::systemBuildString(files), "7B2");
}

TEST_F(CurrentBuildTest, AnyFailureIsLoggedAndFallsBackToTheDistantPast) {
    const std::string prefix = "Failed to get current system version, falling back to 1A1: ";
    const fs::path noEntry = write("no-entry", "NAME=Test\nVERSION_ID=12\n");
    const fs::path bad = write("bad", "BUILD_ID=rolling\n");
    const fs::path good = write("good", "BUILD_ID=5B6\n");
    struct Scenario {
        std::vector<fs::path> files;
        std::string mentions;
    };
    // The first existing record is used alone, even when a later one has a build.
    const std::vector<Scenario> scenarios = {
        {{folder_ / "none", folder_ / "neither"}, "no version record"},
        {{noEntry, good}, "has no BUILD_ID"},
        {{bad}, "Invalid build number \"rolling\""},
        {{}, "no version record"},
    };
    for (const Scenario& scenario : scenarios) {
        ScopedLogCapture capture;
        EXPECT_EQ(BuildNumber::currentReadingFrom(scenario.files), BuildNumber::distantPast());
        const auto entries = capture->entries("org.mirels.foundation", "version");
        ASSERT_EQ(entries.size(), 1U);
        EXPECT_EQ(entries[0].level, LogLevel::error);
        EXPECT_TRUE(entries[0].message.starts_with(prefix)) << entries[0].message;
        EXPECT_NE(entries[0].message.find(scenario.mentions), std::string::npos)
            << entries[0].message;
    }
    std::vector<fs::path> files = {noEntry};
    EXPECT_THROW(BuildNumber::systemBuildString(files),
                 BuildNumber::FailedToGetCurrentVersionString);
}

TEST(CurrentBuildStandaloneTest, CurrentIsReadOnceAndMatchesTheSystemRecord) {
    const BuildNumber& current = BuildNumber::current();
    EXPECT_EQ(&current, &BuildNumber::current());
    ScopedLogCapture capture;
    EXPECT_EQ(BuildNumber::currentReadingFrom(BuildNumber::defaultVersionRecordFiles()), current);
}

}  // namespace
}  // namespace mirels
