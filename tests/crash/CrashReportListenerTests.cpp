#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <set>
#include <thread>

#include "execution/Waiting.h"
#include "mirels/crash/CrashReportError.h"
#include "mirels/crash/CrashReportListener.h"
#include "mirels/futures/TimeoutError.h"
#include "mirels/futures/TimeoutFuture.h"
#include "mirels/platform/Log.h"
#include "platform/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace mirels {
namespace {

using testing::TemporaryDirectory;

CrashReport reportOf(const std::string& name, std::int32_t pid, const std::string& tag) {
    return CrashReport(name, "309", pid, PlistDate{10}, std::nullopt, {}, {}, tag);
}

void writePrivateFile(const std::filesystem::path& path, const std::string& text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
}

/// Writes `report` into `folder` as `name`, in place or through a hidden temporary and a rename.
void writeReport(const std::filesystem::path& folder, const std::string& name,
                 const CrashReport& report, bool rename) {
    if (!rename) return writePrivateFile(folder / name, report.jsonText());
    writePrivateFile(folder / ("." + name + ".tmp"), report.jsonText());
    ASSERT_EQ(std::rename((folder / ("." + name + ".tmp")).c_str(), (folder / name).c_str()), 0);
}

std::string tagOf(const Future<CrashReport>& future) {
    const auto termination = future.unpleasantWait();
    if (!termination.isSucceeded()) return termination.isCanceled() ? "canceled" : "failed";
    return termination.resultIfCompleted()->get().logFilePath().value_or("?");
}

TEST(CrashReportListenerTests, HandsOutCompleteReportsAndSkipsWhatItMustNotRead) {
    TemporaryDirectory folder("mirels-crash");
    TemporaryDirectory elsewhere("mirels-crash-outside");
    ScopedLogCapture log;
    auto listener = CrashReportListener::create(folder.path());
    EXPECT_FALSE(listener->isWatching());

    auto byName = listener->nextReport(std::string("Target"));
    auto byPid = listener->nextReport(std::int32_t{77});
    EXPECT_TRUE(listener->isWatching());

    // Skipped: a link to a report outside, a report that does not decode, one over the size
    // limit, a name that is not a report's, a report of another process.
    writePrivateFile(elsewhere / "outside.json", reportOf("Target", 1, "outside").jsonText());
    ASSERT_EQ(symlink((elsewhere / "outside.json").c_str(), (elsewhere / "link.json").c_str()), 0);
    ASSERT_EQ(std::rename((elsewhere / "link.json").c_str(), (folder / "link.json").c_str()), 0);
    writePrivateFile(folder / "bad.json", R"({"name":"Target","bug_type":"309"})");
    writePrivateFile(folder / "huge.json",
                     std::string(CrashReportListener::maximumReportSize + 1, ' '));
    writePrivateFile(folder / "notes.txt", reportOf("Target", 1, "txt").jsonText());
    writeReport(folder.path(), "other.json", reportOf("Other", 5, "other"), false);
    writeReport(folder.path(), "in-place.json", reportOf("Target", 1, "in place"), false);
    writeReport(folder.path(), "renamed.json", reportOf("Pid", 77, "renamed"), true);

    EXPECT_EQ(tagOf(byName), "in place");
    EXPECT_EQ(tagOf(byPid), "renamed");
    EXPECT_TRUE(::mirels::testing::eventually([&] { return !listener->isWatching(); }));
    bool loggedParseFailure = false;
    for (const auto& entry : log->entries()) {
        if (entry.message == "Unable to parse crash report") {
            loggedParseFailure = true;
            EXPECT_EQ(entry.level, LogLevel::debug);
        }
    }
    EXPECT_TRUE(loggedParseFailure);
}

TEST(CrashReportListenerTests, SeesReportsWrittenByAnotherProcess) {
    TemporaryDirectory folder("mirels-crash");
    auto listener = CrashReportListener::create(folder.path());
    for (const std::string mode : {"rename", "inplace"}) {
        auto next = listener->nextReport(std::string("child-" + mode));
        const auto result =
            ::mirels::testing::runChild(MIRELS_TEST_PROGRAM_DIR "/crash_report_writer",
                                        {folder.path().string(), "child-" + mode, "99", mode}, {});
        ASSERT_EQ(result.exitCode, 0);
        const auto termination = next.unpleasantWait();
        ASSERT_TRUE(termination.isSucceeded());
        const CrashReport& report = termination.resultIfCompleted()->get();
        EXPECT_EQ(report.name(), "child-" + mode);
        EXPECT_EQ(report.effectiveError()->highValueTitle(),
                  "child-" + mode + " crashed due to an uncaught exception");
    }
}

TEST(CrashReportListenerTests, CancelAndTimeOutStopWatching) {
    TemporaryDirectory folder("mirels-crash");
    auto listener = CrashReportListener::create(folder.path());
    auto canceled = listener->nextReport(std::string("Never"));
    auto timedOut = listener->nextReport(std::string("NeverEither")).timeout(0.05);
    EXPECT_EQ(listener->waitingCount(), 2u);
    canceled.cancel();
    EXPECT_TRUE(canceled.unpleasantWait().isCanceled());
    const auto result = timedOut.unpleasantWait();
    ASSERT_TRUE(result.isFailed());
    EXPECT_TRUE(result.resultIfCompleted()->failureError()->as<TimeoutError>());
    EXPECT_TRUE(::mirels::testing::eventually([&] { return !listener->isWatching(); }));
    EXPECT_EQ(listener->waitingCount(), 0u);

    // A folder that cannot be watched fails the request with the reason.
    writePrivateFile(folder / "file.json", "{}");
    auto failed = CrashReportListener::create(folder / "file.json")->nextReport(1).unpleasantWait();
    ASSERT_TRUE(failed.isFailed());
    const auto* error = failed.resultIfCompleted()->failureError()->as<CrashReportListenerError>();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->highValueTitle(), "Unable to watch for crash reports");

    // Dropping the listener cancels what still waits.
    auto orphan = CrashReportListener::create(folder.path())->nextReport(std::string("Gone"));
    EXPECT_TRUE(orphan.unpleasantWait().isCanceled());
}

TEST(CrashReportListenerTests, FourWritersFourListenersEachReportExactlyOnce) {
    TemporaryDirectory folder("mirels-crash");
    constexpr int processes = 4;
    constexpr int reportsPerProcess = 50;
    std::vector<std::shared_ptr<CrashReportListener>> listeners;
    std::vector<std::vector<Future<CrashReport>>> futures(processes);
    for (int p = 0; p < processes; ++p) {
        listeners.push_back(CrashReportListener::create(folder.path()));
        for (int i = 0; i < reportsPerProcess; ++i) {
            futures[p].push_back(listeners[p]->nextReport("process-" + std::to_string(p)));
        }
    }
    // Requests that are canceled while reports arrive release everything they hold.
    auto extra = CrashReportListener::create(folder.path());
    std::vector<Future<CrashReport>> abandoned;
    for (int i = 0; i < 20; ++i) abandoned.push_back(extra->nextReport(std::string("process-0")));

    std::vector<std::thread> writers;
    for (int w = 0; w < 4; ++w) {
        writers.emplace_back([&, w] {
            for (int i = 0; i < processes * reportsPerProcess / 4; ++i) {
                const int sequence = w * 1000 + i;
                const int process = (i + w) % processes;  // 50 of each process in all
                writeReport(folder.path(), "r-" + std::to_string(sequence) + ".json",
                            reportOf("process-" + std::to_string(process), process,
                                     std::to_string(sequence)),
                            (i % 2) == 0);
                if (w == 0 && i == 10) {
                    for (auto& future : abandoned) future.cancel();
                }
            }
        });
    }
    for (auto& writer : writers) writer.join();

    std::set<std::string> all;
    for (int p = 0; p < processes; ++p) {
        std::set<std::string> mine;
        for (auto& future : futures[p]) {
            const auto termination = future.timeout(30).unpleasantWait();
            ASSERT_TRUE(termination.isSucceeded());
            const CrashReport& report = termination.resultIfCompleted()->get().get();
            EXPECT_EQ(report.name(), "process-" + std::to_string(p));
            mine.insert(*report.logFilePath());
        }
        EXPECT_EQ(mine.size(), static_cast<std::size_t>(reportsPerProcess));
        all.insert(mine.begin(), mine.end());
        EXPECT_TRUE(::mirels::testing::eventually([&] { return !listeners[p]->isWatching(); }));
    }
    EXPECT_EQ(all.size(), static_cast<std::size_t>(processes * reportsPerProcess));
    for (auto& future : abandoned) {
        const auto termination = future.unpleasantWait();
        EXPECT_TRUE(termination.isCanceled() || termination.isSucceeded());
    }
    EXPECT_TRUE(::mirels::testing::eventually([&] { return !extra->isWatching(); }));
}

}  // namespace
}  // namespace mirels
