#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <sstream>
#include <unordered_set>

#include "mirels/version/VersionNumber.h"

namespace mirels {
namespace {

TEST(VersionNumberTest, ParsesOneToThreeDecimalParts) {
    EXPECT_EQ(VersionNumber::fromString("1.2"), VersionNumber(1, 2, 0));
    EXPECT_EQ(VersionNumber::fromString("1"), VersionNumber(1, 0, 0));
    EXPECT_EQ(VersionNumber::fromString("10.20.30"), VersionNumber(10, 20, 30));
    EXPECT_EQ(VersionNumber::fromString("0.0.0"), VersionNumber(0, 0));
    EXPECT_EQ(VersionNumber::fromString("9223372036854775807.0.1"), VersionNumber(INT64_MAX, 0, 1));
    for (const char* bad : {"", ".", "1.", ".1", "1..2", "1.2.3.4", "-1.2", "1.-2", "+1", "1.2b",
                            " 1.2", "1.2 ", "a", "9223372036854775808", "1,2"}) {
        EXPECT_EQ(VersionNumber::fromString(bad), std::nullopt) << bad;
    }
    EXPECT_EQ(VersionNumber(OperatingSystemVersion{6, 1, 12}), VersionNumber(6, 1, 12));
    EXPECT_EQ(VersionNumber::fromKernelRelease("6.1.0-18-amd64"), VersionNumber(6, 1, 0));
    EXPECT_EQ(VersionNumber::fromKernelRelease("5.15.133.1-microsoft-standard-WSL2"),
              std::nullopt);  // four parts
    EXPECT_EQ(VersionNumber::fromKernelRelease("rolling"), std::nullopt);
}

TEST(VersionNumberTest, TextOmitsAZeroUpdateAndOrderIsNumeric) {
    EXPECT_EQ(VersionNumber(1, 2, 0).description(), "1.2");
    EXPECT_EQ(VersionNumber(1, 2, 3).description(), "1.2.3");
    EXPECT_EQ(VersionNumber(0, 0).description(), "0.0");
    std::ostringstream stream;
    stream << VersionNumber(10, 0, 1);
    EXPECT_EQ(stream.str(), "10.0.1");

    EXPECT_LT(VersionNumber(1, 9, 9), VersionNumber(1, 10, 0));
    EXPECT_LT(VersionNumber(1, 2), VersionNumber(1, 2, 1));
    EXPECT_LT(VersionNumber(1, 99, 99), VersionNumber(2, 0));
    EXPECT_FALSE(VersionNumber(1, 2) < VersionNumber(1, 2, 0));
    std::unordered_set<VersionNumber> set = {VersionNumber(1, 2), VersionNumber(1, 2, 0),
                                             VersionNumber(1, 2, 1)};
    EXPECT_EQ(set.size(), 2U);
}

TEST(VersionNumberTest, CurrentIsTheRunningKernelsRelease) {
    utsname name{};
    ASSERT_EQ(uname(&name), 0);
    const auto expected = VersionNumber::fromKernelRelease(name.release);
    ASSERT_TRUE(expected.has_value()) << name.release;
    EXPECT_EQ(VersionNumber::current(), *expected);
    EXPECT_GE(VersionNumber::current(), VersionNumber(2, 6));
}

}  // namespace
}  // namespace mirels
