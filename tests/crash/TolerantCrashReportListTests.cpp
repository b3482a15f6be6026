#include <gtest/gtest.h>

#include "mirels/crash/CrashReport.h"
#include "mirels/crash/CrashReportError.h"
#include "mirels/plist/SafeDecodable.h"

namespace mirels {
namespace {

// The worked example of tolerant decoding: one damaged report does not hide the others.
TEST(TolerantCrashReportList, KeepsTheReportsThatDecodeAndNamesTheOneThatDoesNot) {
    const auto reports = decodeJson<SafeDecodableArray<CrashReport>>(R"([
        {"name":"Grid","bug_type":"309","pid":41,"time":0,"images":[],"frames":[]},
        {"name":"Grid","bug_type":"309","pid":"forty-two","time":0,"images":[],"frames":[]},
        {"name":"Grid","bugType":"309","pid":43,"time":0,"images":[],"frames":[]},
        {"name":"List","bug_type":"309","pid":44,"time":0,"images":[],"frames":[]}
    ])");
    ASSERT_EQ(reports.size(), 2U);
    EXPECT_EQ(reports[0].pid(), 41);
    EXPECT_EQ(reports[1].name(), "List");
    EXPECT_EQ(reports[1].effectiveError()->effectiveTitle(), "List crashed");
    EXPECT_EQ(reports.failedIndices(), (std::vector<std::size_t>{1, 2}));
    EXPECT_EQ(reports.failures()[0].additionalInfo(),
              "The value at \"[1]\" was skipped: [1].pid: expected an integer, found a string");
    // "bugType" is not the key a report has: its "bug_type" is missing.
    EXPECT_EQ(reports.failures()[1].underlying().as<JsonDecodingError>()->path(), "[2].bug_type");

    DiagnosticsCollector collector;
    reports.reportFailures(collector);
    EXPECT_EQ(collector.issueCount(), 2U);
}

}  // namespace
}  // namespace mirels
