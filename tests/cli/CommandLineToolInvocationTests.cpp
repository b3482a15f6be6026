#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>

#include "cli/ProcessTestSupport.h"
#include "execution/Waiting.h"
#include "mirels/cli/CommandLineToolInvocation.h"
#include "mirels/futures/TimeoutError.h"
#include "mirels/futures/TimeoutFuture.h"
#include "support/TemporaryDirectory.h"

namespace mirels {
namespace {

using testing::probeInvocation;
using testing::ToolTestError;

CommandLineToolInvocation plain(std::string launchPath, std::vector<std::string> arguments) {
    return CommandLineToolInvocation(std::move(launchPath), std::move(arguments), {}, std::nullopt,
                                     "tool", std::nullopt, false,
                                     CommandLineToolInvocationError::failedWhenRunning,
                                     CommandLineToolInvocationError::failedToLaunch);
}

std::string valueOf(const Future<std::string>& future) {
    auto termination = future.unpleasantWait();
    const Result<std::string>* result = termination.resultIfCompleted();
    if (result == nullptr) return "<canceled>";
    if (const Error* error = result->failureError())
        return "<failed: " + error->description() + ">";
    return *result->successValue();
}

const ToolTestError* failureOf(const FutureTermination<std::string>& termination) {
    const Result<std::string>* result = termination.resultIfCompleted();
    if (result == nullptr || result->failureError() == nullptr) return nullptr;
    return result->failureError()->as<ToolTestError>();
}

TEST(CommandLineToolInvocationTest, DescribesItsCommandLineAndTool) {
    EXPECT_EQ(plain("/usr/bin/git", {"commit", "-m", "a b", "c"}).commandLineDescription(),
              "/usr/bin/git commit -m \"a b\" c");
    // Nothing inside the quotes is escaped; only blanks (not tabs) call for quotes.
    EXPECT_EQ(plain("/bin/x", {"say \"hi\" now", "tab\tbed", ""}).commandLineDescription(),
              "/bin/x \"say \"hi\" now\" tab\tbed ");
    EXPECT_EQ(plain("/bin/true", {}).commandLineDescription(), "/bin/true ");
    EXPECT_EQ(plain("/usr/bin/git", {}).toolName(), "git");
    EXPECT_EQ(plain("relative/tool/", {}).toolName(), "tool");
    EXPECT_EQ(plain("tool", {}).toolName(), "tool");
    EXPECT_EQ(plain("/", {}).toolName(), "/");
}

TEST(CommandLineToolInvocationTest, PassesArgumentsEnvironmentAndDirectoryVerbatim) {
    // No shell: quotes, dollars, globs and empty arguments arrive exactly as given.
    EXPECT_EQ(valueOf(probeInvocation({"args", "a b", "$HOME", "*", "", "'q'", "x\"y"}).run()),
              "[a b]\n[$HOME]\n[*]\n[]\n['q']\n[x\"y]\n");
    // The environment is the dictionary and nothing else.
    EXPECT_EQ(valueOf(probeInvocation({"env"}, {{"ONLY", "one"}, {"EMPTY", ""}}).run()),
              "EMPTY=\nONLY=one\n");
    EXPECT_EQ(valueOf(probeInvocation({"env"}).run()), "");
    testing::TemporaryDirectory directory;
    char before[4096];
    ASSERT_NE(::getcwd(before, sizeof before), nullptr);
    EXPECT_EQ(valueOf(probeInvocation({"cwd"}, {}, directory.path().string()).run()),
              std::filesystem::canonical(directory.path()).string());
    char after[4096];
    ASSERT_NE(::getcwd(after, sizeof after), nullptr);
    EXPECT_STREQ(before, after);  // only the child moved
}

TEST(CommandLineToolInvocationTest, NonZeroStatusFailsWithTheHandlersErrorAndTheWholeOutput) {
    auto invocation = probeInvocation({"exit", "3", "x"});
    std::atomic<int> calls{0};
    invocation.failedWhenRunningHandler = [&](const CommandLineToolInvocation& self,
                                              const std::string& output) {
        ++calls;
        EXPECT_EQ(self.name, "probe");
        return Error(ToolTestError("running", output));
    };
    const auto termination = invocation.run().unpleasantWait();
    const ToolTestError* error = failureOf(termination);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->kind, "running");
    EXPECT_EQ(error->text, "x");
    EXPECT_EQ(calls.load(), 1);

    // A signal is not a success either: its number is the status.
    const auto killed =
        probeInvocation({"killself", std::to_string(SIGSEGV)}).run().unpleasantWait();
    ASSERT_NE(failureOf(killed), nullptr);
    EXPECT_EQ(failureOf(killed)->text, "dying\n");
}

TEST(CommandLineToolInvocationTest, LaunchFailuresAreThrownAtOnce) {
    auto missing = probeInvocation({});
    missing.launchPath = "/no/such/tool";
    try {
        (void)missing.run();
        FAIL() << "a missing tool launched";
    } catch (const ToolTestError& error) {
        EXPECT_EQ(error.kind, "launch");
        EXPECT_EQ(error.text, "Could not launch /no/such/tool: No such file or directory.");
    }
    testing::TemporaryDirectory directory;
    const auto notExecutable = directory.path() / "data.txt";
    std::ofstream(notExecutable) << "#!/bin/sh\necho hi\n";
    auto denied = probeInvocation({});
    denied.launchPath = notExecutable.string();
    try {
        (void)denied.run();
        FAIL() << "a file without execute permission launched";
    } catch (const ToolTestError& error) {
        EXPECT_EQ(error.text,
                  "Could not launch " + notExecutable.string() + ": Permission denied.");
    }
    try {
        (void)probeInvocation({"cwd"}, {}, "/no/such/directory").run();
        FAIL() << "launched in a missing directory";
    } catch (const ToolTestError& error) {
        EXPECT_EQ(error.text, "Could not launch " + testing::probePath() +
                                  " in /no/such/directory: No such file or directory.");
    }
    // The ready-made error names the tool.
    try {
        (void)plain("/no/such/tool", {"a"}).run();
        FAIL();
    } catch (const CommandLineToolInvocationError& error) {
        EXPECT_EQ(error.kind(), CommandLineToolInvocationError::Kind::failedToLaunch);
        EXPECT_EQ(*error.highValueTitle(), "tool could not be launched.");
    }
}

TEST(CommandLineToolInvocationTest, LogsTheLabelTheLaunchAndTheCompletion) {
    ScopedLogCapture capture;
    const Logger log("org.mirels.tests", "tools");
    const auto future = probeInvocation({"exit", "2"}, {}, std::nullopt, log).run();
    (void)future.unpleasantWait();
    const auto entries = capture->entries("org.mirels.tests", "tools");
    ASSERT_EQ(entries.size(), 3U);
    const std::string& label = entries[0].message;
    ASSERT_TRUE(label.starts_with("[id "));
    const std::string identifier = label.substr(4, label.find(']') - 4);
    EXPECT_EQ(label, "[id " + identifier + "] cli_process_probe invocation");
    EXPECT_EQ(entries[0].level, LogLevel::info);
    const std::string launched = entries[1].message;
    EXPECT_EQ(entries[1].level, LogLevel::debug);
    ASSERT_TRUE(launched.starts_with("[id " + identifier + "] launched pid "));
    const std::string pid = launched.substr(launched.rfind(' ') + 1);
    EXPECT_EQ(entries[2].message,
              "[id " + identifier + "] (pid " + pid + ") <private> completed with status: 2");

    // Without a log nothing is written.
    capture->clear();
    (void)probeInvocation({"exit", "0"}).run().unpleasantWait();
    EXPECT_TRUE(capture->entries("org.mirels.tests", "tools").empty());
}

TEST(CommandLineToolInvocationTest, DecodesUtf8AcrossReadsAndReplacesInvalidBytes) {
    EXPECT_EQ(valueOf(probeInvocation({"split"}).run()), "caf\xC3\xA9 \xC3\xBC");
    EXPECT_EQ(valueOf(probeInvocation({"invalid"}).run()),
              "a\xEF\xBF\xBD"
              "b\xEF\xBF\xBD");
}

TEST(CommandLineToolInvocationTest, StandardErrorIsKeptApartUnlessAskedFor) {
    using StandardError = CommandLineToolInvocation::StandardError;
    // 1 MiB on standard error before anything on standard output: no deadlock either way.
    const std::string size = std::to_string(1 << 20);
    EXPECT_EQ(valueOf(probeInvocation({"flood", size}, {}, std::nullopt, std::nullopt,
                                      StandardError::discard)
                          .run()),
              std::string(1 << 20, 'o'));
    EXPECT_EQ(valueOf(probeInvocation({"flood", size}, {}, std::nullopt, std::nullopt,
                                      StandardError::captureWithOutput)
                          .run()),
              std::string(1 << 20, 'e') + std::string(1 << 20, 'o'));
}

TEST(CommandLineToolInvocationTest, StreamsToStandardOutputWhenAsked) {
    auto invocation = probeInvocation({"split"});
    invocation.streamToStandardOutput = true;
    ::testing::internal::CaptureStdout();
    const std::string value = valueOf(invocation.run());
    const std::string passed = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(value, "caf\xC3\xA9 \xC3\xBC");
    EXPECT_EQ(passed, value);
}

TEST(CommandLineToolInvocationTest, OddChildrenGetTheirDocumentedOutcome) {
    // Closes its output early and keeps running: the future waits for the end of the child.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(valueOf(probeInvocation({"closeout"}).run()), "early\n");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
    // Never reads its input: its input is the null device.
    EXPECT_EQ(valueOf(probeInvocation({"noread"}).run()), "");
    EXPECT_EQ(valueOf(probeInvocation({"echoinput"}).run()), "");
}

TEST(CommandLineToolInvocationTest, CancelingEndsTheChildAndTimeOutsCompose) {
    ScopedLogCapture capture;
    const Logger log("org.mirels.tests", "cancel");
    auto pidOf = [&](std::size_t index) {
        const auto entries = capture->entries("org.mirels.tests", "cancel");
        const std::string& line = entries.at(index).message;
        return static_cast<pid_t>(std::stoi(line.substr(line.rfind(' ') + 1)));
    };

    auto future = probeInvocation({"sleep", "30000"}, {}, std::nullopt, log).run();
    const pid_t sleeper = pidOf(1);
    future.cancel();
    EXPECT_TRUE(future.isCanceled());
    ASSERT_TRUE(testing::eventually(
        [&] { return capture->entries("org.mirels.tests", "cancel").size() == 3; }));
    const auto entries = capture->entries("org.mirels.tests", "cancel");
    EXPECT_TRUE(entries[2].message.ends_with(
        "(pid " + std::to_string(sleeper) +
        ") <private> completed with status: " + std::to_string(SIGTERM)));

    // A child that ignores SIGTERM is killed after the grace period.
    capture->clear();
    testing::TemporaryDirectory directory;
    const std::string ready = (directory.path() / "ready").string();
    auto stubborn = probeInvocation({"ignoreterm", ready}, {}, std::nullopt, log).run();
    ASSERT_TRUE(testing::eventually([&] { return std::filesystem::exists(ready); }));
    const auto cancelAt = std::chrono::steady_clock::now();
    stubborn.cancel();
    ASSERT_TRUE(testing::eventually(
        [&] { return capture->entries("org.mirels.tests", "cancel").size() == 3; }));
    EXPECT_GE(std::chrono::steady_clock::now() - cancelAt, std::chrono::milliseconds(900));
    EXPECT_TRUE(capture->entries("org.mirels.tests", "cancel")[2].message.ends_with(
        "completed with status: " + std::to_string(SIGKILL)));

    // A time-out fails with TimeoutError and, by canceling upstream, ends the child.
    capture->clear();
    const auto timed =
        probeInvocation({"sleep", "30000"}, {}, std::nullopt, log).run().timeout(0.2);
    const auto outcome = timed.unpleasantWait();
    const Result<Result<std::string>>* outer = outcome.resultIfCompleted();
    ASSERT_NE(outer, nullptr);
    ASSERT_NE(outer->failureError(), nullptr);
    EXPECT_NE(outer->failureError()->as<TimeoutError>(), nullptr);
    ASSERT_TRUE(testing::eventually(
        [&] { return capture->entries("org.mirels.tests", "cancel").size() == 3; }));
}

TEST(CommandLineToolInvocationTest, DroppedFuturesLeaveNoZombie) {
    ScopedLogCapture capture;
    const Logger log("org.mirels.tests", "dropped");
    (void)probeInvocation({"exit", "0"}, {}, std::nullopt, log).run();
    ASSERT_TRUE(testing::eventually(
        [&] { return capture->entries("org.mirels.tests", "dropped").size() == 3; }));
    const std::string launched = capture->entries("org.mirels.tests", "dropped")[1].message;
    const pid_t pid = static_cast<pid_t>(std::stoi(launched.substr(launched.rfind(' ') + 1)));
    EXPECT_FALSE(testing::hasZombieChild());
    EXPECT_EQ(::kill(pid, 0), -1);  // reaped: the pid is gone
}

TEST(CommandLineToolInvocationTest, ManyRunsCompleteOnceWithoutLeaks) {
    auto echo = probeInvocation({});
    echo.launchPath = "/bin/echo";
    // The first run starts the library's I/O thread, whose epoll and wake-up descriptors stay
    // open for the life of the process: count from after it.
    ASSERT_EQ(valueOf(echo.run()), "\n");
    const int descriptorsBefore = testing::openDescriptorCount();
    for (int i = 0; i < 1000; ++i) {
        const std::string word = "run" + std::to_string(i);
        echo.arguments = {word};
        auto future = echo.run();
        std::atomic<int> finishes{0};
        future.observeFinish([&](const FutureTermination<std::string>&) { ++finishes; });
        ASSERT_EQ(valueOf(future), word + "\n");
        EXPECT_EQ(finishes.load(), 1);
    }

    constexpr int concurrent = 64;
    std::vector<Future<std::string>> futures;
    std::vector<std::shared_ptr<std::atomic<int>>> finishes;
    std::vector<std::thread> launchers;
    std::mutex mutex;
    for (int t = 0; t < 4; ++t) {
        launchers.emplace_back([&, t] {
            for (int i = t; i < concurrent; i += 4) {
                auto invocation = echo;
                invocation.arguments = {std::to_string(i)};
                auto future = invocation.run();
                auto count = std::make_shared<std::atomic<int>>(0);
                future.observeFinish([count](const FutureTermination<std::string>&) { ++*count; });
                std::lock_guard guard(mutex);
                futures.push_back(future);
                finishes.push_back(count);
            }
        });
    }
    for (auto& launcher : launchers) launcher.join();
    std::set<std::string> values;
    for (const auto& future : futures) values.insert(valueOf(future));
    EXPECT_EQ(values.size(), static_cast<std::size_t>(concurrent));
    for (int i = 0; i < concurrent; ++i) EXPECT_EQ(values.count(std::to_string(i) + "\n"), 1U);
    futures.clear();
    ASSERT_TRUE(testing::eventually([&] {
        for (const auto& count : finishes) {
            if (count->load() != 1) return false;
        }
        return true;
    }));
    EXPECT_FALSE(testing::hasZombieChild());
    EXPECT_TRUE(
        testing::eventually([&] { return testing::openDescriptorCount() == descriptorsBefore; }));
}

}  // namespace
}  // namespace mirels
