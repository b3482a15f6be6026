#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <thread>

#include "../support/Files.h"
#include "mirels/crash/CrashError.h"
#include "mirels/crash/CrashReportListener.h"
#include "mirels/crash/CrashReporter.h"
#include "mirels/crash/LinuxCrashTextErrors.h"
#include "support/TemporaryDirectory.h"
#include "support/TestEnvironment.h"

namespace mirels {
namespace {

using testing::readFile;

using namespace std::chrono_literals;
using testing::TemporaryDirectory;

const std::string childPath = std::string(MIRELS_TEST_PROGRAM_DIR) + "/crash_reporter_child";

std::shared_ptr<ChildProcess> child(std::vector<std::string> arguments,
                                    const std::string& path = childPath) {
    testing::disableLeakCheckingInChildren();
    auto process = ChildProcess::create();
    process->setExecutableURL(path);
    process->setArguments(std::move(arguments));
    process->setStandardOutput(ProcessStandardStream::nullDevice());
    process->setStandardError(ProcessStandardStream::nullDevice());
    return process;
}

std::vector<std::filesystem::path> reportsIn(const std::filesystem::path& folder) {
    std::vector<std::filesystem::path> files;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(folder, ignored)) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

mode_t modeOf(const std::filesystem::path& path) {
    struct stat info {};
    EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
}

/// The state letter of /proc/<pid>/stat ('t': stopped while traced).
char processState(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    const std::string text((std::istreambuf_iterator<char>(stat)),
                           std::istreambuf_iterator<char>());
    const auto close = text.rfind(')');
    return close == std::string::npos || close + 2 >= text.size() ? '?' : text[close + 2];
}

bool hasFrame(const CrashReport& report, std::string_view symbolPrefix) {
    return std::any_of(report.frames().begin(), report.frames().end(), [&](const auto& frame) {
        return frame.symbol && frame.symbol->find(symbolPrefix) != std::string::npos;
    });
}

TEST(CrashReporterTest, DeepCrashGivesASymbolisedReportThatTheListenerHandsOut) {
    TemporaryDirectory directory("mirels-reporter");
    const auto folder = directory / "state" / "crash-reports";
    auto listener = CrashReportListener::create(folder);
    // The listener needs its folder; the reporter must cope with one that exists already too.
    std::filesystem::create_directories(folder);
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all);
    auto next = listener->nextReport("crash_reporter_child");

    auto reporter = CrashReporter::create(folder);
    const CrashOutcome outcome = reporter->launch(child({"deep", "50"})).waitUntilDone();

    EXPECT_EQ(outcome.reason, ProcessTerminationReason::uncaughtSignal);
    EXPECT_EQ(outcome.status, SIGSEGV);
    EXPECT_EQ(outcome.exitStatus(), 128 + SIGSEGV);
    ASSERT_TRUE(outcome.traced) << "ptrace was refused";
    ASSERT_TRUE(outcome.report && outcome.reportPath)
        << (outcome.writeError ? outcome.writeError->description() : "no report");
    const CrashReport& report = *outcome.report;
    EXPECT_EQ(report.name(), "crash_reporter_child");
    EXPECT_EQ(report.bugType(), CrashReporter::fatalSignalBugType);
    ASSERT_TRUE(report.asi());
    const auto signal = (*report.asi())[std::string(CrashReporter::signalKey)];
    ASSERT_TRUE(signal);
    EXPECT_EQ(signal->at(0), "SIGSEGV (Segmentation fault), code SEGV_MAPERR, address 0x0");

    // The crashing function on top, then the 50 levels of recursion, all pointing into images.
    ASSERT_FALSE(report.frames().empty());
    ASSERT_TRUE(report.frames()[0].symbol);
    EXPECT_NE(report.frames()[0].symbol->find("crashAtTheBottom"), std::string::npos);
    EXPECT_GE(std::count_if(report.frames().begin(), report.frames().end(),
                            [](const auto& f) {
                                return f.symbol &&
                                       f.symbol->find("descend(int)") != std::string::npos;
                            }),
              50);
    EXPECT_TRUE(hasFrame(report, "main"));
    for (const auto& frame : report.frames()) {
        ASSERT_GE(frame.imageIndex, 0);
        ASSERT_LT(static_cast<std::size_t>(frame.imageIndex), report.images().size());
        EXPECT_GE(frame.imageOffset, 0);
    }
    const auto& image = report.images()[static_cast<std::size_t>(report.frames()[0].imageIndex)];
    EXPECT_EQ(image.name, "crash_reporter_child");
    EXPECT_EQ(image.path, std::filesystem::canonical(childPath).string());
    EXPECT_EQ(image.uuid.size(), 40U) << "a GNU build ID as hexadecimal";

    // On disk: decodes to the same report, private to the owner, and the listener hands it out.
    EXPECT_EQ(CrashReport::decode(readFile(*outcome.reportPath)), report);
    EXPECT_EQ(modeOf(*outcome.reportPath), 0600U);
    EXPECT_EQ(reportsIn(folder).size(), 1U) << "no temporary file left behind";
    const auto termination = next.unpleasantWait();
    ASSERT_TRUE(termination.isSucceeded());
    EXPECT_EQ(termination.resultIfCompleted()->get(), report);
    EXPECT_NE(dynamic_cast<const CrashError*>(report.effectiveError().get()), nullptr);
    EXPECT_GT(outcome.timings.unwindNanoseconds, 0);
    EXPECT_GE(outcome.timings.signalToReportNanoseconds, outcome.timings.unwindNanoseconds);
}

TEST(CrashReporterTest, ReportKeepsTheLastLinesOfStandardErrorAndStillPassesThemOn) {
    TemporaryDirectory directory("mirels-reporter");
    const auto folder = directory / "a" / "b";
    CrashReporter::Configuration configuration;
    configuration.folder = folder;
    configuration.standardErrorLineCount = 2;
    auto reporter = CrashReporter::create(configuration);

    auto process = child({"abort"});
    auto pipe = Pipe::create();
    process->setStandardError(ProcessStandardStream::pipe(pipe));
    auto supervised = reporter->launch(process);
    const std::string passedOn = pipe->fileHandleForReading()->readDataToEndOfFile();
    const CrashOutcome& outcome = supervised.waitUntilDone();

    EXPECT_EQ(passedOn, "first line\nabout to abort\n");
    EXPECT_EQ(outcome.exitStatus(), 128 + SIGABRT);
    ASSERT_TRUE(outcome.report);
    const auto lines = (*outcome.report->asi())[std::string(CrashReporter::standardErrorKey)];
    EXPECT_EQ(lines, (std::vector<std::string>{"first line", "about to abort"}));
    EXPECT_EQ((*outcome.report->asi())[std::string(CrashReporter::signalKey)]->at(0).rfind(
                  "SIGABRT (Aborted)", 0),
              0U);
    EXPECT_TRUE(hasFrame(*outcome.report, "abort"));
    EXPECT_EQ(modeOf(folder), 0700U);
    EXPECT_EQ(modeOf(folder.parent_path()), 0700U);

    // Only the last lines are kept.
    configuration.standardErrorLineCount = 1;
    const auto one = CrashReporter::create(configuration)->launch(child({"abort"})).waitUntilDone();
    ASSERT_TRUE(one.report);
    EXPECT_EQ((*one.report->asi())[std::string(CrashReporter::standardErrorKey)],
              std::vector<std::string>{"about to abort"});
}

TEST(CrashReporterTest, ProgramsThatDoNotCrashPassThroughWithoutAReport) {
    TemporaryDirectory directory("mirels-reporter");
    auto reporter = CrashReporter::create(directory.path());

    const auto exited = reporter->launch(child({"exit", "5"})).waitUntilDone();
    EXPECT_EQ(exited.reason, ProcessTerminationReason::exit);
    EXPECT_EQ(exited.exitStatus(), 5);
    EXPECT_FALSE(exited.report);

    // A program that handles SIGSEGV itself gets the signal, untouched, and is no crash.
    const auto handled = reporter->launch(child({"handled"})).waitUntilDone();
    EXPECT_EQ(handled.exitStatus(), 3);
    EXPECT_FALSE(handled.report);

    // A stopped child stays stopped until continued, as without tracing.
    auto stopping = child({"stop"});
    auto supervised = reporter->launch(stopping);
    // On its way to the stop that lasts, the child passes through a short traced stop where the
    // signal is delivered, and runs for a moment between the two: wait for 't' to hold 100 ms.
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    std::optional<std::chrono::steady_clock::time_point> stoppedSince;
    while (std::chrono::steady_clock::now() < deadline) {
        const auto now = std::chrono::steady_clock::now();
        if (processState(stopping->processIdentifier()) != 't') {
            stoppedSince.reset();
        } else if (!stoppedSince) {
            stoppedSince = now;
        } else if (now - *stoppedSince >= 100ms) {
            break;
        }
        std::this_thread::sleep_for(5ms);
    }
    ASSERT_EQ(processState(stopping->processIdentifier()), 't') << "stopped, and traced";
    EXPECT_FALSE(supervised.waitUntilDone(100ms));
    ASSERT_TRUE(stopping->sendSignal(SIGCONT));
    const auto continued = supervised.waitUntilDone(10s);
    ASSERT_TRUE(continued);
    EXPECT_EQ(continued->exitStatus(), 0);

    // Killed by a signal that is no crash: the status, no report.
    auto killed = child({"stop"});
    auto supervisedKill = reporter->launch(killed);
    killed->sendSignal(SIGTERM);
    killed->sendSignal(SIGCONT);
    EXPECT_EQ(supervisedKill.waitUntilDone().exitStatus(), 128 + SIGTERM);
    EXPECT_TRUE(reportsIn(directory.path()).empty());

    EXPECT_THROW((void)reporter->launch(child({}, "/nonexistent/program")), ProcessError);
}

// Supervising threads are shared between launches: a child that stays (stopped) keeps one busy
// while launches from several threads at once, clean and crashing, each get their own outcome.
TEST(CrashReporterTest, ConcurrentLaunchesEachGetTheirOwnOutcome) {
    TemporaryDirectory directory("mirels-reporter");
    auto reporter = CrashReporter::create(directory.path());
    auto stopping = child({"stop"});
    auto stopped = reporter->launch(stopping);

    constexpr int threadCount = 4;
    constexpr int launchesPerThread = 3;
    std::atomic<int> wrong{0};
    std::vector<std::thread> launchers;
    for (int t = 0; t < threadCount; ++t) {
        launchers.emplace_back([&, t] {
            for (int i = 0; i < launchesPerThread; ++i) {
                const bool crash = i == 1;
                const int status = 10 * t + i;
                const auto outcome =
                    reporter
                        ->launch(
                            child(crash ? std::vector<std::string>{"deep", "3"}
                                        : std::vector<std::string>{"exit", std::to_string(status)}))
                        .waitUntilDone();
                const bool right =
                    crash ? outcome.exitStatus() == 128 + SIGSEGV && outcome.traced &&
                                outcome.reportPath && hasFrame(*outcome.report, "crashAtTheBottom")
                          : outcome.exitStatus() == status && outcome.traced && !outcome.report;
                if (!right) ++wrong;
            }
        });
    }
    for (auto& launcher : launchers) launcher.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(reportsIn(directory.path()).size(), static_cast<std::size_t>(threadCount));

    EXPECT_FALSE(stopped.isDone());
    ASSERT_TRUE(stopping->sendSignal(SIGCONT));
    const auto continued = stopped.waitUntilDone(10s);
    ASSERT_TRUE(continued);
    EXPECT_EQ(continued->exitStatus(), 0);
}

TEST(CrashReporterTest, CrashOnAnotherThreadAndUntracedCrashesAndLoaderRefusals) {
    TemporaryDirectory directory("mirels-reporter");
    auto reporter = CrashReporter::create(directory.path());

    const auto threaded = reporter->launch(child({"thread"})).waitUntilDone();
    ASSERT_TRUE(threaded.report);
    EXPECT_TRUE(hasFrame(*threaded.report, "crashOnWorkerThread"));

    CrashReporter::Configuration untraced;
    untraced.folder = directory.path();
    untraced.trace = false;
    const auto plain =
        CrashReporter::create(untraced)->launch(child({"deep", "3"})).waitUntilDone();
    EXPECT_FALSE(plain.traced);
    ASSERT_TRUE(plain.report);
    EXPECT_TRUE(plain.report->frames().empty());
    EXPECT_EQ((*plain.report->asi())[std::string(CrashReporter::signalKey)]->at(0),
              "SIGSEGV (Segmentation fault)");

    // The dynamic loader's refusal: exit status 127 and its message.
    auto refused = child({"-c",
                          "echo 'prog: error while loading shared libraries: libgone.so.1: cannot "
                          "open shared object file: No such file or directory' >&2; exit 127"},
                         "/bin/sh");
    const auto loader = reporter->launch(refused).waitUntilDone();
    EXPECT_EQ(loader.exitStatus(), 127);
    ASSERT_TRUE(loader.report);
    EXPECT_EQ(loader.report->bugType(), CrashReporter::libraryLoadBugType);
    EXPECT_EQ(loader.report->name(), "sh");
    EXPECT_TRUE(loader.report->frames().empty());
    auto error = linuxCrashTextError(*loader.report);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->highValueTitle(), "sh crashed because libgone.so.1 is missing");
    // Exit 127 without the message is a plain exit.
    EXPECT_FALSE(reporter->launch(child({"exit", "127"})).waitUntilDone().report);
    EXPECT_EQ(reportsIn(directory.path()).size(), 3U);
}

TEST(CrashReporterTest, WritesNeverCollideAndFailuresNameThePath) {
    TemporaryDirectory directory("mirels-reporter");
    auto reporter = CrashReporter::create(directory / "reports");
    const CrashReport report("same/name", "fatal-signal", 42, PlistDate{100}, std::nullopt, {}, {},
                             std::nullopt);
    std::vector<std::thread> writers;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([&] {
            for (int i = 0; i < 5; ++i) {
                try {
                    (void)reporter->write(report);
                } catch (...) {
                    ++failures;
                }
            }
        });
    }
    for (auto& writer : writers) writer.join();
    EXPECT_EQ(failures.load(), 0);
    const auto files = reportsIn(directory / "reports");
    ASSERT_EQ(files.size(), 20U);
    EXPECT_EQ(files.front().filename().string().rfind("same_name-2001-01-01-000140-42", 0), 0U);
    for (const auto& file : files) EXPECT_EQ(CrashReport::decode(readFile(file)), report);

    // A folder that cannot be made.
    std::ofstream(directory / "file") << "x";
    try {
        (void)CrashReporter::create(directory / "file" / "reports")->write(report);
        FAIL() << "wrote below a file";
    } catch (const CrashReportWriteError& error) {
        EXPECT_EQ(error.highValueTitle(), "Unable to write a crash report");
        EXPECT_NE(error.additionalInfo()->find((directory / "file" / "reports").string()),
                  std::string::npos);
    }
}

// The launch hook the reporter attaches with: the child waits, stopped, with its streams,
// directory and environment already set up, and a program that cannot run still fails the launch.
TEST(CrashReporterTest, StoppedLaunchHandlerSeesTheChildStoppedBeforeItRuns) {
    TemporaryDirectory directory("mirels-reporter");
    auto process = ChildProcess::create();
    process->setExecutableURL("/bin/sh");
    process->setArguments({"-c", "pwd; echo \"$GREETING\"; echo oops >&2; exit 4"});
    process->setEnvironment(ChildProcess::Environment{{"GREETING", "hello"}});
    process->setCurrentDirectoryURL(directory.path().string());
    auto output = Pipe::create();
    process->setStandardOutput(ProcessStandardStream::pipe(output));
    process->setStandardError(ProcessStandardStream::nullDevice());
    char state = '?';
    pid_t seen = 0;
    process->setStoppedLaunchHandler([&](pid_t pid) {
        seen = pid;
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
        state = text.at(text.rfind(')') + 2);
        ::kill(pid, SIGCONT);
    });
    process->launch();
    EXPECT_EQ(seen, process->processIdentifier());
    EXPECT_EQ(state, 'T') << "stopped while the handler runs";
    EXPECT_EQ(output->fileHandleForReading()->readDataToEndOfFile(),
              std::filesystem::canonical(directory.path()).string() + "\nhello\n");
    process->waitUntilExit();
    EXPECT_EQ(process->terminationStatus(), 4);

    auto missing = ChildProcess::create();
    missing->setExecutableURL("/nonexistent/program");
    missing->setStoppedLaunchHandler([](pid_t pid) { ::kill(pid, SIGCONT); });
    std::optional<Error> error;
    EXPECT_FALSE(missing->launchAndReturnError(&error));
    ASSERT_TRUE(error);
    const auto* failure = error->as<ProcessError>();
    ASSERT_NE(failure, nullptr);
    EXPECT_EQ(failure->systemErrorNumber(), ENOENT);
}

}  // namespace
}  // namespace mirels
