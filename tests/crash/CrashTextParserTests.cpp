#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <string>

#include "crash/CrashReportSamples.h"
#include "mirels/crash/ConditionInFileError.h"
#include "mirels/crash/CrashError.h"
#include "mirels/crash/DyldLibraryLoadCrashError.h"
#include "mirels/crash/ErrorParsingUtilities.h"
#include "mirels/crash/LinuxCrashTextErrors.h"
#include "mirels/crash/MissingEnvironmentObjectError.h"
#include "mirels/crash/UncaughtExceptionError.h"
#include "mirels/platform/Log.h"
#include "support/SoftAssertions.h"

namespace mirels {
namespace {

using testing::reportWithInformation;
using testing::reportWithLines;

TEST(CrashTextParserTests, MissingEnvironmentObject) {
    const auto error = MissingEnvironmentObjectError::fromCrashReport(
        reportWithLines({"unrelated",
                         "ui/EnvironmentObject.swift:90: Fatal error: No ObservableObject of "
                         "type Settings found. A View.environmentObject(_:) for Settings may be "
                         "missing as an ancestor of this view."},
                        "Preview Agent"));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->processName(), "Preview Agent");
    EXPECT_EQ(error->type(), "Settings");
    EXPECT_EQ(error->highValueTitle(), "Mirel is missing environment object \"Settings\"");
    EXPECT_EQ(error->additionalInfo(),
              "Preview Agent crashed due to missing environment of type: Settings. To resolve "
              "this add `.environmentObject(Settings(...))` to the appropriate mirel.");
    EXPECT_EQ(error->options(), HumanReadableErrorOptions::showCrashLogsButton);
    EXPECT_FALSE(error->isPotentialCrash());
    EXPECT_EQ(error->additionalDiagnostics(), error->crashReport().structuredDescription());
}

TEST(CrashTextParserTests, ConditionForms) {
    // A bare "Fatal error" after the position: the condition form.
    auto fatal = ConditionInFileError::fromCrashReport(
        reportWithLines({"/home/me/Project/Sources/ContentView.swift:42: Fatal error"}));
    ASSERT_TRUE(fatal);
    EXPECT_EQ(fatal->kind(), ConditionInFileError::Kind::fatalError);
    EXPECT_EQ(fatal->file(), "ContentView.swift");
    EXPECT_EQ(fatal->line(), 42);
    EXPECT_EQ(fatal->highValueTitle(), "`fatalError` in ContentView.swift");
    EXPECT_EQ(fatal->additionalInfo(),
              "Demo crashed due to fatalError in ContentView.swift at line 42.");

    auto assertion = ConditionInFileError::fromCrashReport(
        reportWithLines({"a/b/Model.swift:7: ASSERTION FAILED"}));
    ASSERT_TRUE(assertion);
    EXPECT_EQ(assertion->kind(), ConditionInFileError::Kind::assert);
    EXPECT_EQ(assertion->highValueTitle(), "Assert in Model.swift");
    EXPECT_EQ(assertion->additionalInfo(), "Demo crashed due to assert in Model.swift at line 7.");

    auto precondition = ConditionInFileError::fromCrashReport(
        reportWithLines({"/x/Store.swift:99999999999999999999: Precondition failed"}));
    ASSERT_TRUE(precondition);
    EXPECT_EQ(precondition->kind(), ConditionInFileError::Kind::precondition);
    EXPECT_EQ(precondition->line(), std::nullopt);  // does not convert: no line number
    EXPECT_EQ(precondition->highValueTitle(), "Precondition in Store.swift");
    EXPECT_EQ(precondition->additionalInfo(), "Demo crashed due to precondition in Store.swift.");

    // "Fatal error: message" is not exactly "fatal error"; with " nil while unwrapping" in the
    // message the unwrap form takes it, unless any line (even a later one) has a condition.
    const std::string unwrapLine =
        "/x/View.swift:12: Fatal error: Unexpectedly found nil while unwrapping an Optional value";
    auto unwrap = ConditionInFileError::fromCrashReport(reportWithLines({unwrapLine}));
    ASSERT_TRUE(unwrap);
    EXPECT_EQ(unwrap->kind(), ConditionInFileError::Kind::implicitlyUnwrappedOptional);
    EXPECT_EQ(unwrap->file(), "View.swift");
    EXPECT_EQ(unwrap->line(), 12);
    EXPECT_EQ(unwrap->highValueTitle(), "Implicitly unwrapped nil value in View.swift");
    EXPECT_EQ(unwrap->additionalInfo(),
              "Demo crashed due to implicitly unwrapped optional in View.swift at line 12.");
    auto conditionLater = ConditionInFileError::fromCrashReport(reportWithInformation(
        {{"a", {unwrapLine}}, {"b", {"/y/Later.swift:3: Assertion failed"}}}));
    ASSERT_TRUE(conditionLater);
    EXPECT_EQ(conditionLater->kind(), ConditionInFileError::Kind::assert);
    EXPECT_EQ(conditionLater->file(), "Later.swift");

    EXPECT_FALSE(ConditionInFileError::fromCrashReport(
        reportWithLines({"/x/View.swift:12: Fatal error: something else"})));
    EXPECT_FALSE(
        ConditionInFileError::fromCrashReport(reportWithLines({"View.swift:12: Fatal error"})));
}

TEST(CrashTextParserTests, DyldAndUncaughtException) {
    auto dyld = DyldLibraryLoadCrashError::fromCrashReport(reportWithLines(
        {"dyld: launch, loading dependent libraries\nDYLD_LIBRARY_PATH=/x\nLibrary not loaded: "
         "@rpath/Helpers.framework/Versions/A/Helpers\n  Referenced from: /x/App"}));
    ASSERT_TRUE(dyld);
    EXPECT_EQ(dyld->library(), "Helpers.framework");
    EXPECT_EQ(dyld->highValueTitle(), "Demo crashed because Helpers.framework is missing");
    EXPECT_EQ(dyld->additionalInfo(), std::nullopt);
    // No "/" after the name: nothing to capture.
    EXPECT_FALSE(DyldLibraryLoadCrashError::fromCrashReport(
        reportWithLines({"Library not loaded: @rpath/libz.dylib"})));
    // The launch preamble on a realistic few-kilobyte line still matches.
    std::string longLine = "dyld: launch, loading dependent libraries\n";
    for (int i = 0; i < 80; ++i)
        longLine += "  DYLD_INSERT_LIBRARIES=/some/rather/long/path/" + std::to_string(i) + "\n";
    longLine += "Library not loaded: @rpath/Deep.framework/Deep";
    ASSERT_GT(longLine.size(), 4000u);
    auto deep = DyldLibraryLoadCrashError::fromCrashReport(reportWithLines({longLine}));
    ASSERT_TRUE(deep);
    EXPECT_EQ(deep->library(), "Deep.framework");

    auto exception = UncaughtExceptionError::fromCrashReport(reportWithLines(
        {"*** Terminating app due to uncaught exception 'NSInternalInconsistencyException', "
         "reason: 'Invalid update: invalid number of rows'"}));
    ASSERT_TRUE(exception);
    EXPECT_EQ(exception->exception(), "NSInternalInconsistencyException");
    EXPECT_EQ(exception->reason(), "Invalid update: invalid number of rows");
    EXPECT_EQ(exception->highValueTitle(), "Demo crashed due to an uncaught exception");
    EXPECT_EQ(exception->additionalInfo(),
              "Demo crashed due to an uncaught exception `NSInternalInconsistencyException`. "
              "Reason: Invalid update: invalid number of rows.");
    EXPECT_FALSE(UncaughtExceptionError::fromCrashReport(
        reportWithLines({"due to uncaught exception 'X', reason: ''"})));
    EXPECT_FALSE(UncaughtExceptionError::fromCrashReport(
        CrashReport("D", "1", 1, PlistDate{}, std::nullopt, {}, {}, std::nullopt)));
}

TEST(CrashTextParserTests, BuildErrorMessages) {
    const std::string output =
        "Compiling\nerror: not at a file\n/src/A.swift:3:5: error: cannot find 'x' in "
        "scope\n/src/B.swift:9:1: error: second\n";
    EXPECT_EQ(firstBuildErrorMessage(output), "not at a file");
    EXPECT_EQ(firstFileBuildErrorMessage(output), "cannot find 'x' in scope");
    EXPECT_EQ(firstFileBuildErrorMessage("error: only\nwarning: x"), std::nullopt);
    EXPECT_EQ(firstBuildErrorMessage("error: only\nwarning: x"), "only");
    EXPECT_EQ(firstBuildErrorMessage("all good\n"), std::nullopt);
    EXPECT_EQ(firstBuildErrorMessage("x: error: \n"), "");
}

/// A parser whose pattern does not compile.
class BrokenPatternError final : public SingleRegexCrashReportError<BrokenPatternError> {
  public:
    BrokenPatternError(const CrashReport& report, std::string_view, const RegexMatch&)
        : SingleRegexCrashReportError(report) {}
    static const Regex* regex() {
        static const std::unique_ptr<const Regex> compiled = detail::compileCrashTextPattern(
            "(unclosed", Regex::none, Callsite::library("BrokenPatternError"));
        return compiled.get();
    }
    std::optional<std::string> additionalInfo() const override { return std::nullopt; }
};

TEST(CrashTextParserTests, APatternThatDoesNotCompileReportsOnceAndDisablesOnlyItsParser) {
    testing::SoftAssertionRecorder recorder;
    ScopedLogCapture log;
    const CrashReport report =
        reportWithLines({"(unclosed", "due to uncaught exception 'E', reason: 'R'"});
    EXPECT_FALSE(BrokenPatternError::fromCrashReport(report));
    EXPECT_FALSE(BrokenPatternError::fromCrashReport(report));
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_TRUE(recorder.files().at(0).starts_with("CrashTextParserTests.cpp:"))
        << recorder.files().at(0);
    EXPECT_TRUE(UncaughtExceptionError::fromCrashReport(report));
}

/// Every parser, the fixed four and the Linux set, over `report`, for robustness checks.
void runEveryParser(const CrashReport& report) {
    (void)report.effectiveError();
    (void)linuxCrashTextError(report);
    for (const auto& [key, lines] : *report.asi()) {
        for (const auto& line : lines) {
            (void)firstBuildErrorMessage(line);
            (void)firstFileBuildErrorMessage(line);
        }
    }
}

TEST(CrashTextParserTests, LongLinesJunkAndInvalidUtf8NeverBreakAParser) {
    ScopedLogCapture log;
    std::mt19937 random(7);
    std::string junk(1 << 20, '\0');
    for (char& c : junk) c = static_cast<char>(random());
    std::string slashes;
    while (slashes.size() < (1 << 20)) slashes += "/a.swift:1";
    std::string dyld = "dyld: launch, loading dependent libraries";
    dyld.append(1 << 20, 'x');
    dyld += "Library not loaded: @rpath/Late.framework/Late";
    const std::string invalid = "\xff\xfe\xc3(\xe2\x82 Library not loaded: @rpath/\xff\xfe/x";

    const auto start = std::chrono::steady_clock::now();
    runEveryParser(reportWithLines({junk, slashes, std::string(1 << 20, 'a'), invalid}));
    // Beyond the engine's stack the optional preamble costs the match, counted as none, logged.
    const CrashReport longDyld = reportWithLines({dyld});
    runEveryParser(longDyld);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_LT(elapsed, std::chrono::seconds(60));  // liveness only: no hang

    auto odd = DyldLibraryLoadCrashError::fromCrashReport(reportWithLines({invalid}));
    ASSERT_TRUE(odd);
    EXPECT_EQ(odd->library(), "\xff\xfe");
}

TEST(LinuxCrashTextTests, EachParserReadsTheProgramsOwnText) {
    auto explain = [](std::vector<std::string> lines) {
        auto error = linuxCrashTextError(reportWithLines(std::move(lines), "demo"));
        return error ? error->errorTypeDescription() + "|" + error->highValueTitle().value_or("-") +
                           "|" + error->additionalInfo().value_or("-")
                     : std::string("none");
    };
    EXPECT_EQ(explain({"demo: src/main.c:42: main: Assertion `count > 0' failed."}),
              "AssertionFailureError|Assertion failed in main.c|demo crashed due to the failed "
              "assertion `count > 0` in main at src/main.c:42.");
    EXPECT_EQ(
        explain({"demo: /b/x.cpp:7: int parse(const char*): Assertion `p != nullptr' failed."}),
        "AssertionFailureError|Assertion failed in x.cpp|demo crashed due to the failed "
        "assertion `p != nullptr` in int parse(const char*) at /b/x.cpp:7.");
    EXPECT_EQ(explain({"terminate called after throwing an instance of 'std::runtime_error'",
                       "  what():  disk full"}),
              "UncaughtCppExceptionError|demo crashed due to an uncaught C++ exception|demo "
              "crashed due to an uncaught exception `std::runtime_error`. Reason: disk full.");
    EXPECT_EQ(
        explain(
            {"terminate called after throwing an instance of 'std::out_of_range'\n"
             "  what():  vector::_M_range_check: __n (which is 3) >= this->size() (which is 0)"}),
        "UncaughtCppExceptionError|demo crashed due to an uncaught C++ exception|demo "
        "crashed due to an uncaught exception `std::out_of_range`. Reason: "
        "vector::_M_range_check: __n (which is 3) >= this->size() (which is 0).");
    EXPECT_EQ(explain({"terminate called after throwing an instance of 'int'"}),
              "UncaughtCppExceptionError|demo crashed due to an uncaught C++ exception|demo "
              "crashed due to an uncaught exception `int`.");
    EXPECT_EQ(explain({"demo: error while loading shared libraries: libmissing.so.3: cannot open "
                       "shared object file: No such file or directory"}),
              "SharedLibraryLoadError|demo crashed because libmissing.so.3 is missing|demo could "
              "not start: the dynamic loader found no libmissing.so.3 on the library search path.");
    EXPECT_EQ(explain({"*** stack smashing detected ***: terminated"}),
              "StackSmashingError|demo crashed due to a stack buffer overflow|demo was stopped "
              "because it wrote past the end of a buffer on the stack (stack smashing detected).");
    for (std::string message :
         {"free(): double free detected in tcache 2", "double free or corruption (out)",
          "malloc(): corrupted top size", "munmap_chunk(): invalid pointer"}) {
        EXPECT_EQ(explain({message}),
                  "HeapCorruptionError|demo crashed due to heap corruption|demo was stopped by the "
                  "C library's heap check \"" +
                      message +
                      "\": memory was freed twice, written past the end of a block, or used after "
                      "it was freed.");
    }
    EXPECT_EQ(explain({"everything is fine"}), "none");
    // The fixed set does not know these texts: the report falls back to CrashError first.
    EXPECT_EQ(reportWithLines({"*** stack smashing detected ***: terminated"})
                  .effectiveError()
                  ->errorTypeDescription(),
              "CrashError");
}

}  // namespace
}  // namespace mirels
