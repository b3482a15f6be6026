#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "../support/Files.h"
#include "../support/TemporaryDirectory.h"
#include "mirels/errors/DiagnosticsCollector.h"
#include "mirels/errors/DiagnosticsSummaryError.h"
#include "mirels/errors/HumanReadableError.h"

namespace mirels {
namespace {

using testing::readFile;

/// An error that adds an attachment when it is collected.
class DiskFullError final : public HumanReadableError {
  public:
    std::optional<std::string> highValueTitle() const override { return "Disk full"; }
    std::optional<std::string> additionalInfo() const override { return "line one\nline two"; }
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }
    void collectDiagnostics(DiagnosticsCollector& collector) const override {
        collector.attach("df", "/ 100%\n/home 3%");
    }
};

Issue::Clock::time_point at(std::int64_t milliseconds) {
    return Issue::Clock::time_point(std::chrono::milliseconds(milliseconds));
}

TEST(DiagnosticsCollector, SummaryGroupsIssuesBySeverityWithFullDiagnostics) {
    DiagnosticsCollector collector;
    const Callsite here(nullptr, "/src/Grid.cpp", 12, 5, "render()");
    collector.record(Issue(Issue::Severity::note, "cache warmed", here).withTime(at(1500)));
    collector.record(
        Issue(Issue::Severity::error, "could not save", DiskFullError{}, here).withTime(at(2000)));
    collector.record(Issue(Issue::Severity::warning, "slow frame\n42 ms", here).withTime(at(3000)));
    collector.record(Issue(Issue::Severity::error, "second", here).withTime(at(4000)));
    ASSERT_EQ(collector.issueCount(), 4U);
    // The error attached its text when it was recorded.
    ASSERT_EQ(collector.attachments().size(), 1U);

    EXPECT_EQ(collector.summaryText("Grid", 4242, at(1'700'000'000'123)),
              "Mirels diagnostics summary\n"
              "Process: Grid [4242]\n"
              "Date/Time: 2023-11-14 22:13:20.123 UTC\n"
              "Issues: 4 (2 errors, 1 warnings, 1 notes)\n"
              "\n"
              "Errors (2):\n"
              "  [1] 1970-01-01 00:00:02.000 UTC Grid.cpp:12:5 within render()\n"
              "      could not save\n"
              "      DiskFullError: Disk full\n"
              "\n"
              "      line one\n"
              "      line two\n"
              "\n"
              "  [2] 1970-01-01 00:00:04.000 UTC Grid.cpp:12:5 within render()\n"
              "      second\n"
              "\n"
              "Warnings (1):\n"
              "  [1] 1970-01-01 00:00:03.000 UTC Grid.cpp:12:5 within render()\n"
              "      slow frame\n"
              "      42 ms\n"
              "\n"
              "Notes (1):\n"
              "  [1] 1970-01-01 00:00:01.500 UTC Grid.cpp:12:5 within render()\n"
              "      cache warmed\n"
              "\n"
              "Attachments (1):\n"
              "  df:\n"
              "      / 100%\n"
              "      /home 3%\n");

    // Any error value is kept in its human-readable form.
    collector.report(Issue::Severity::warning, "odd", Error(std::string("raw text")));
    EXPECT_NE(collector.issues().back().error(), nullptr);
    EXPECT_EQ(collector.issues().back().description().rfind("warning: odd (", 0), 0U);

    collector.removeAll();
    EXPECT_EQ(collector.issueCount(), 0U);
    EXPECT_TRUE(collector.attachments().empty());
    EXPECT_EQ(
        collector.summaryText("p", 1, at(0)),
        "Mirels diagnostics summary\nProcess: p [1]\n"
        "Date/Time: 1970-01-01 00:00:00.000 UTC\nIssues: 0 (0 errors, 0 warnings, 0 notes)\n");
}

TEST(DiagnosticsCollector, WritesAndAtomicallyReplacesTheSummaryFile) {
    testing::TemporaryDirectory directory("mirels-diag");
    DiagnosticsCollector collector;
    collector.report(Issue::Severity::warning, "first");
    const std::filesystem::path location = directory / "nested" / "reports";
    const std::filesystem::path file = collector.writeSummary(location);
    EXPECT_EQ(file, location / "mirels-diagnostics" / "mirels_diagnostics_summary.txt");
    const std::string first = readFile(file);
    EXPECT_EQ(first.rfind("Mirels diagnostics summary\nProcess: ", 0), 0U);
    EXPECT_NE(first.find("Issues: 1 (0 errors, 1 warnings, 0 notes)"), std::string::npos);

    collector.report(Issue::Severity::error, "second");
    EXPECT_EQ(collector.writeSummary(location), file);
    EXPECT_NE(readFile(file).find("Issues: 2 (1 errors, 1 warnings, 0 notes)"), std::string::npos);
    // Only the summary is left in the folder: no temporary files.
    std::size_t entries = 0;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator(location / "mirels-diagnostics")) {
        ++entries;
    }
    EXPECT_EQ(entries, 1U);
}

TEST(DiagnosticsCollector, AFolderThatCannotBeMadeIsAClearError) {
    testing::TemporaryDirectory directory("mirels-diag");
    DiagnosticsCollector collector;
    // The location is a file.
    std::ofstream(directory / "plain-file") << "x";
    try {
        (void)collector.writeSummary(directory / "plain-file");
        FAIL() << "wrote into a file";
    } catch (const DiagnosticsSummaryError& error) {
        EXPECT_EQ(error.effectiveTitle(), "Unable to write the diagnostics summary");
        const std::string info = *error.additionalInfo();
        EXPECT_EQ(
            info.rfind("Could not create the folder \"" +
                           (directory / "plain-file" / "mirels-diagnostics").string() + "\": ",
                       0),
            0U)
            << info;
    }
    // The folder's name is taken by a file.
    std::filesystem::create_directory(directory / "taken");
    std::ofstream(directory / "taken" / "mirels-diagnostics") << "x";
    EXPECT_THROW((void)collector.writeSummary(directory / "taken"), DiagnosticsSummaryError);
    // A folder that may not be written (root ignores permissions, so only check as a user).
    if (::geteuid() != 0) {
        std::filesystem::create_directories(directory / "locked" / "mirels-diagnostics");
        ::chmod((directory / "locked" / "mirels-diagnostics").c_str(), 0555);
        EXPECT_THROW((void)collector.writeSummary(directory / "locked"), DiagnosticsSummaryError);
        ::chmod((directory / "locked" / "mirels-diagnostics").c_str(), 0755);
    }
}

TEST(DiagnosticsCollector, ConcurrentRecordingWhileWritingLosesNothing) {
    testing::TemporaryDirectory directory("mirels-diag");
    DiagnosticsCollector collector;
    constexpr int threads = 8;
    constexpr int perThread = 500;
    std::atomic<bool> done{false};
    std::thread writer([&] {
        while (!done.load()) (void)collector.writeSummary(directory.path());
    });
    std::vector<std::thread> recorders;
    for (int t = 0; t < threads; ++t) {
        recorders.emplace_back([&collector, t] {
            for (int i = 0; i < perThread; ++i) {
                if (i % 50 == 0) {
                    collector.report(Issue::Severity::error, "with error", Error(DiskFullError{}));
                } else {
                    collector.report(Issue::Severity::note,
                                     "t" + std::to_string(t) + "-" + std::to_string(i));
                }
            }
        });
    }
    for (auto& recorder : recorders) recorder.join();
    done = true;
    writer.join();

    const std::filesystem::path file = collector.writeSummary(directory.path());
    const std::string summary = readFile(file);
    EXPECT_NE(summary.find("Issues: 4000 (80 errors, 0 warnings, 3920 notes)"), std::string::npos);
    for (int t = 0; t < threads; ++t) {
        EXPECT_NE(summary.find("      t" + std::to_string(t) + "-499\n"), std::string::npos);
    }
    EXPECT_EQ(collector.attachments().size(), 80U);
}

}  // namespace
}  // namespace mirels
