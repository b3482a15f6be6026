#include <gtest/gtest.h>

#include "crash/CrashReportSamples.h"
#include "mirels/crash/ConditionInFileError.h"
#include "mirels/crash/CrashError.h"
#include "mirels/crash/CrashReport.h"
#include "mirels/crash/DyldLibraryLoadCrashError.h"
#include "mirels/crash/MissingEnvironmentObjectError.h"
#include "mirels/crash/UncaughtExceptionError.h"

namespace mirels {
namespace {

constexpr std::string_view fullReport = R"({
  "name": "Demo", "bug_type": "309", "pid": 4242, "time": 785329451.25,
  "asi": {"zlib": ["first", "second"], "app": ["third"]},
  "images": [
    {"uuid": "AAAA", "base": 4294967296, "path": "/usr/lib/demo.so", "name": "demo.so"},
    {"uuid": "BBBB", "base": 0, "path": null}
  ],
  "frames": [
    {"imageIndex": 0, "imageOffset": 128, "symbol": "main", "symbolLocation": 12},
    {"imageIndex": 1, "imageOffset": -8, "unknownKey": {"ignored": [1, 2]}}
  ],
  "logFilePath": "/var/log/demo.ips",
  "extra": "ignored"
})";

TEST(CrashReportTests, DecodesEveryFieldAndRendersItsDescription) {
    const CrashReport report = CrashReport::decode(fullReport);
    EXPECT_EQ(report.name(), "Demo");
    EXPECT_EQ(report.bugType(), "309");
    EXPECT_EQ(report.pid(), 4242);
    EXPECT_EQ(report.time().secondsSinceReferenceDate, 785329451.25);
    ASSERT_TRUE(report.asi());
    EXPECT_EQ(report.asi()->at(0).first, "zlib");  // the text's order, not sorted
    EXPECT_EQ(report.images().at(0).base, std::intptr_t{4294967296});
    EXPECT_EQ(report.images().at(1).path, std::nullopt);
    EXPECT_EQ(report.frames().at(1).imageOffset, -8);
    EXPECT_EQ(report.frames().at(1).symbol, std::nullopt);
    EXPECT_EQ(report.logFilePath(), "/var/log/demo.ips");

    EXPECT_EQ(report.structuredDescription(),
              "Process: Demo[4242]\n"
              "Date/Time: 2025-11-20 11:04:11 +0000\n"
              "Log File: /var/log/demo.ips\n"
              "Application Specific Information:\n"
              "  zlib\n    first\n    second\n"
              "  app\n    third\n"
              "Frames:\n"
              "  Frame\n    imageIndex: 0\n    imageOffset: 128\n    symbol: main\n"
              "    symbolLocation: 12\n"
              "  Frame\n    imageIndex: 1\n    imageOffset: -8\n    symbol: <none>\n"
              "    symbolLocation: <none>\n"
              "Images:\n"
              "  Image\n    uuid: AAAA\n    base: 4294967296\n    name: demo.so\n"
              "    path: /usr/lib/demo.so\n"
              "  Image\n    uuid: BBBB\n    base: 0\n    name: <none>\n    path: <none>");

    // The JSON form written by the report reads back as the same report; so does the
    // memberwise one.
    EXPECT_EQ(CrashReport::decode(report.jsonText()), report);
    const CrashReport built("Demo", "309", 4242, PlistDate{785329451.25}, report.asi(),
                            report.images(), report.frames(), "/var/log/demo.ips");
    EXPECT_EQ(built, report);
}

TEST(CrashReportTests, AbsentOrEmptyInformationRendersNoSectionAndFallsBackToCrashError) {
    const std::string minimal =
        R"({"name":"Quiet","bug_type":"309","pid":1,"time":0,"images":[],"frames":[]})";
    const CrashReport absent = CrashReport::decode(minimal);
    EXPECT_EQ(absent.asi(), std::nullopt);
    EXPECT_EQ(absent.structuredDescription(),
              "Process: Quiet[1]\nDate/Time: 2001-01-01 00:00:00 +0000\nLog File: <none>\n"
              "Frames:\nImages:");
    const CrashReport empty = CrashReport::decode(
        R"({"name":"Quiet","bug_type":"309","pid":1,"time":0,"asi":{},"images":[],"frames":[]})");
    ASSERT_TRUE(empty.asi());
    EXPECT_EQ(empty.structuredDescription(), absent.structuredDescription());

    const auto error = absent.effectiveError();
    ASSERT_TRUE(dynamic_cast<const CrashError*>(error.get()));
    EXPECT_EQ(error->highValueTitle(), "Quiet crashed");
    EXPECT_EQ(error->additionalInfo(), "Quiet crashed.");
    EXPECT_EQ(error->lowValueTitle(), std::nullopt);
    EXPECT_EQ(error->additionalDiagnostics(), absent.structuredDescription());
    EXPECT_EQ(error->options(), HumanReadableErrorOptions::showCrashLogsButton);
    EXPECT_TRUE(error->canTryAgain());
    EXPECT_FALSE(error->isPotentialCrash());
    EXPECT_TRUE(error->isNativeHumanReadable());
    EXPECT_EQ(error->errorTypeDescription(), "CrashError");
    EXPECT_EQ(error->fullDiagnosticsOutput(),
              "CrashError: Quiet crashed\n\nQuiet crashed.\n\n" + absent.structuredDescription());
    EXPECT_EQ(&error->crashReport() == &absent, false);
    EXPECT_EQ(error->crashReport(), absent);
}

TEST(CrashReportTests, DecodingErrorsNameThePath) {
    auto errorOf = [](const std::string& text) -> std::string {
        try {
            (void)CrashReport::decode(text);
        } catch (const JsonDecodingError& error) {
            return *error.additionalInfo();
        }
        return "decoded";
    };
    const std::string head = R"({"name":"D","bug_type":"1","pid":1,"time":0,"images":[],)";
    EXPECT_EQ(errorOf(R"({"name":"D","bugType":"1","pid":1,"time":0,"images":[],"frames":[]})"),
              "bug_type: required key is missing");
    EXPECT_EQ(
        errorOf(R"({"name":"D","bug_type":"1","pid":4294967296,"time":0,"images":[],"frames":[]})"),
        "pid: the number 4294967296 does not fit a 32-bit signed integer");
    EXPECT_EQ(
        errorOf(
            R"({"name":"D","bug_type":"1","pid":1,"time":"2020-01-01","images":[],"frames":[]})"),
        "time: expected a number, found a string");
    EXPECT_EQ(errorOf(R"({"name":null,"bug_type":"1","pid":1,"time":0,"images":[],"frames":[]})"),
              "name: expected a string, found null");
    EXPECT_EQ(
        errorOf(
            head +
            R"("frames":[{"imageIndex":0,"imageOffset":0},{"imageIndex":0,"imageOffset":0},{"imageIndex":0,"imageOffset":0},{"imageIndex":"3","imageOffset":0}]})"),
        "frames[3].imageIndex: expected an integer, found a string");
    EXPECT_EQ(
        errorOf(
            R"({"name":"D","bug_type":"1","pid":1,"time":0,"asi":{"k":["a",2]},"images":[],"frames":[]})"),
        "asi.k[1]: expected a string, found an integer");
    EXPECT_EQ(
        errorOf(
            R"({"name":"D","bug_type":"1","pid":1,"time":0,"images":[{"base":1}],"frames":[]})"),
        "images[0].uuid: required key is missing");
    EXPECT_EQ(errorOf(head + R"("frames":[]}   trailing)").substr(0, 16), "malformed JSON: ");
}

TEST(CrashReportTests, EffectiveErrorTakesTheFirstParserInTheFixedOrder) {
    const std::string environment =
        "Fatal error: No ObservableObject of type Model found. A View.environmentObject(_:) for "
        "Model may be missing as an ancestor of this view.";
    const std::string condition = "/home/me/App/ContentView.swift:42: Fatal error";
    const std::string dyld = "Library not loaded: @rpath/Missing.framework/Missing";
    const std::string exception =
        "*** Terminating app due to uncaught exception 'RangeException', reason: 'out of range'";

    auto typeOf = [](const CrashReport& report) {
        return report.effectiveError()->errorTypeDescription();
    };
    using testing::reportWithLines;
    // Lines in the reverse of the parser order: the order of parsers wins over line order.
    EXPECT_EQ(typeOf(reportWithLines({exception, dyld, condition, environment})),
              "MissingEnvironmentObjectError");
    EXPECT_EQ(typeOf(reportWithLines({exception, dyld, condition})), "ConditionInFileError");
    EXPECT_EQ(typeOf(reportWithLines({exception, dyld})), "DyldLibraryLoadCrashError");
    EXPECT_EQ(typeOf(reportWithLines({exception})), "UncaughtExceptionError");
    EXPECT_EQ(typeOf(reportWithLines({"nothing to see"})), "CrashError");
}

}  // namespace
}  // namespace mirels
