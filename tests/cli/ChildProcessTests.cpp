#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "cli/ProcessTestSupport.h"
#include "execution/Waiting.h"
#include "mirels/cli/ChildProcess.h"
#include "mirels/cli/CommandLineProcess.h"

namespace mirels {
namespace {

std::shared_ptr<ChildProcess> probeProcess(std::vector<std::string> arguments) {
    auto child = ChildProcess::create();
    child->setExecutableURL(testing::probePath());
    child->setArguments(std::move(arguments));
    return child;
}

/// Runs `child` with its standard output in a pipe and returns what it wrote.
std::string outputOf(const std::shared_ptr<ChildProcess>& child) {
    auto pipe = Pipe::create();
    child->setStandardOutput(ProcessStandardStream::pipe(pipe));
    child->launch();
    std::string output = pipe->fileHandleForReading()->readDataToEndOfFile();
    child->waitUntilExit();
    return output;
}

TEST(ChildProcessTest, ChildStartsCleanWhateverTheParentIgnoresBlocksOrLeavesOpen) {
    // A parent that ignores SIGPIPE, blocks SIGUSR1 and holds a descriptor without
    // close-on-exec must pass none of it on.
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction previous {};
    ASSERT_EQ(::sigaction(SIGPIPE, &ignore, &previous), 0);
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    sigset_t previousMask;
    ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &usr1, &previousMask), 0);
    const int leaky = ::open("/dev/null", O_RDONLY);  // no O_CLOEXEC on purpose
    ASSERT_GE(leaky, 0);

    const std::string signals = outputOf(probeProcess({"signals"}));
    const std::string descriptors = outputOf(probeProcess({"fds"}));

    ::close(leaky);
    ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
    ::sigaction(SIGPIPE, &previous, nullptr);
    EXPECT_EQ(signals, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
    EXPECT_EQ(descriptors, "0 1 2 ");
}

// The gate a tracer attaches at: the child waits there, not yet running the program, until
// another thread opens or drops the gate; it then starts as clean as any child, and the launch
// leaves nothing behind in this process (descriptors, signal mask, zombies).
TEST(ChildProcessTest, LaunchGateHoldsTheChildUntilAnotherThreadLetsItGo) {
    sigset_t maskBefore;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &maskBefore);
    // The first launch starts the library's I/O thread, whose epoll and wake-up descriptors stay
    // open for the life of the process: count from after it.
    {
        auto warmUp = probeProcess({"exit", "0"});
        ASSERT_TRUE(warmUp->launchAndReturnError());
        warmUp->waitUntilExit();
    }
    const int descriptorsBefore = testing::openDescriptorCount();

    // `open`: another thread waits for the child at the gate, looks at it, and opens the gate;
    // otherwise the handler drops the gate before the child can even reach it.
    auto gated = [](const std::shared_ptr<ChildProcess>& child, bool open, pid_t& seen,
                    std::string& programAtGate) {
        std::thread opener;
        child->setLaunchGateHandler([&](LaunchGate gate) {
            if (!open) return;
            opener = std::thread([&, gate = std::move(gate)]() mutable {
                seen = gate.waitForChild();
                std::error_code ignored;
                programAtGate =
                    std::filesystem::read_symlink("/proc/" + std::to_string(seen) + "/exe", ignored)
                        .string();
                gate.open();
            });
        });
        std::optional<Error> error;
        const bool launched = child->launchAndReturnError(&error);
        if (opener.joinable()) opener.join();
        return launched ? std::optional<Error>() : error;
    };

    for (const bool open : {true, false}) {
        for (const std::string mode : {"signals", "fds"}) {
            auto child = probeProcess({mode});
            auto pipe = Pipe::create();
            child->setStandardOutput(ProcessStandardStream::pipe(pipe));
            pid_t seen = 0;
            std::string programAtGate;
            ASSERT_FALSE(gated(child, open, seen, programAtGate));
            if (open) {
                EXPECT_EQ(seen, child->processIdentifier());
                EXPECT_EQ(programAtGate, std::filesystem::read_symlink("/proc/self/exe").string())
                    << "the child still runs our code at the gate";
            }
            const std::string output = pipe->fileHandleForReading()->readDataToEndOfFile();
            child->waitUntilExit();
            EXPECT_EQ(child->terminationReason(), ProcessTerminationReason::exit);
            EXPECT_EQ(child->terminationStatus(), 0);
            EXPECT_EQ(output, mode == "fds"
                                  ? "0 1 2 "
                                  : "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n")
                << (open ? "opened" : "dropped");
        }
    }

    // A program that cannot run still reaches the gate, then fails the launch as usual.
    pid_t seen = 0;
    std::string programAtGate;
    auto missing = ChildProcess::create();
    missing->setExecutableURL("/nonexistent/program");
    const auto error = gated(missing, true, seen, programAtGate);
    ASSERT_TRUE(error);
    ASSERT_NE(error->as<ProcessError>(), nullptr);
    EXPECT_EQ(error->as<ProcessError>()->systemErrorNumber(), ENOENT);
    EXPECT_NE(seen, 0);

    sigset_t maskAfter;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &maskAfter);
    for (int signal = 1; signal < NSIG; ++signal) {
        EXPECT_EQ(sigismember(&maskAfter, signal), sigismember(&maskBefore, signal)) << signal;
    }
    EXPECT_EQ(testing::openDescriptorCount(), descriptorsBefore);
    EXPECT_FALSE(testing::hasZombieChild());
}

TEST(ChildProcessTest, ReportsExitAndSignalTerminations) {
    auto exited = probeProcess({"exit", "7"});
    EXPECT_FALSE(exited->isRunning());
    EXPECT_EQ(exited->processIdentifier(), 0);
    exited->launch();
    EXPECT_GT(exited->processIdentifier(), 0);
    exited->waitUntilExit();
    EXPECT_FALSE(exited->isRunning());
    EXPECT_EQ(exited->terminationStatus(), 7);
    EXPECT_EQ(exited->terminationReason(), ProcessTerminationReason::exit);
    std::optional<Error> again;
    EXPECT_FALSE(exited->launchAndReturnError(&again));
    ASSERT_TRUE(again.has_value());
    EXPECT_EQ(again->as<ProcessError>()->step(), ProcessError::Step::alreadyLaunched);

    auto signaled = probeProcess({"sleep", "30000"});
    signaled->launch();
    EXPECT_TRUE(signaled->isRunning());
    EXPECT_TRUE(signaled->suspend());
    EXPECT_TRUE(signaled->suspend());
    EXPECT_TRUE(signaled->resume());
    EXPECT_TRUE(signaled->resume());
    EXPECT_FALSE(signaled->resume());
    signaled->interrupt();
    signaled->waitUntilExit();
    EXPECT_EQ(signaled->terminationReason(), ProcessTerminationReason::uncaughtSignal);
    EXPECT_EQ(signaled->terminationStatus(), SIGINT);
    EXPECT_FALSE(signaled->sendSignal(SIGTERM));

    auto noExecutable = ChildProcess::create();
    std::optional<Error> error;
    EXPECT_FALSE(noExecutable->launchAndReturnError(&error));
    EXPECT_STREQ(error->as<ProcessError>()->what(),
                 "Could not launch a process without an executable.");
}

TEST(ChildProcessDeathTest, ReadingTheStatusOfARunningChildStops) {
    EXPECT_DEATH(
        {
            auto child = probeProcess({"sleep", "2000"});
            child->launch();
            (void)child->terminationStatus();
        },
        "termination status of a child process was read before it ended");
}

TEST(ChildProcessTest, DrainsBothOutputPipesOnOneThreadAndBeforeTermination) {
    // 4 MiB to standard error before a byte on standard output: reading only one pipe would
    // deadlock; and every byte is there when the termination handler runs.
    constexpr std::size_t size = 4 << 20;
    auto child = probeProcess({"flood", std::to_string(size)});
    auto out = Pipe::create();
    auto err = Pipe::create();
    child->setStandardOutput(ProcessStandardStream::pipe(out));
    child->setStandardError(ProcessStandardStream::pipe(err));
    auto outBytes = std::make_shared<std::atomic<std::size_t>>(0);
    auto errBytes = std::make_shared<std::atomic<std::size_t>>(0);
    out->fileHandleForReading()->setReadabilityHandler(
        [outBytes](FileHandle& handle) { *outBytes += handle.availableData().size(); });
    err->fileHandleForReading()->setReadabilityHandler(
        [errBytes](FileHandle& handle) { *errBytes += handle.availableData().size(); });
    std::atomic<std::size_t> seenAtEnd{0};
    std::atomic<int> calls{0};
    child->setTerminationHandler([&](ChildProcess& ended) {
        EXPECT_FALSE(ended.isRunning());
        seenAtEnd = *outBytes + *errBytes;
        ++calls;
    });
    child->launch();
    child->waitUntilExit();
    EXPECT_EQ(calls.load(), 1);
    EXPECT_EQ(seenAtEnd.load(), 2 * size);
    EXPECT_FALSE(testing::hasZombieChild());
}

TEST(ChildProcessTest, InputWriterSeesABrokenPipeInsteadOfDying) {
    auto child = probeProcess({"noread"});
    auto input = Pipe::create();
    child->setStandardInput(ProcessStandardStream::pipe(input));
    child->setStandardOutput(ProcessStandardStream::nullDevice());
    child->launch();
    // Far more than the pipe holds: the write blocks until the child exits, then fails.
    try {
        input->fileHandleForWriting()->write(std::string(4 << 20, 'i'));
        FAIL() << "the write outlived its reader";
    } catch (const ProcessError& error) {
        EXPECT_EQ(error.systemErrorNumber(), EPIPE);
    }
    child->waitUntilExit();
    EXPECT_EQ(child->terminationStatus(), 0);

    // And a child that reads its input gets all of it.
    auto echo = probeProcess({"echoinput"});
    auto feed = Pipe::create();
    echo->setStandardInput(ProcessStandardStream::pipe(feed));
    auto result = Pipe::create();
    echo->setStandardOutput(ProcessStandardStream::pipe(result));
    echo->launch();
    std::thread writer([&] {
        feed->fileHandleForWriting()->write("hello\n");
        feed->fileHandleForWriting()->closeFile();
    });
    EXPECT_EQ(result->fileHandleForReading()->readDataToEndOfFile(), "hello\n");
    writer.join();
    echo->waitUntilExit();
}

TEST(ChildProcessTest, TerminateWithGraceKillsAStubbornChild) {
    auto child = probeProcess({"ignoreterm"});
    auto out = Pipe::create();
    child->setStandardOutput(ProcessStandardStream::pipe(out));
    child->launch();
    EXPECT_EQ(out->fileHandleForReading()->availableData(), "ready\n");
    child->terminate(TimePeriod::from(std::chrono::milliseconds(100)));
    child->waitUntilExit();
    EXPECT_EQ(child->terminationReason(), ProcessTerminationReason::uncaughtSignal);
    EXPECT_EQ(child->terminationStatus(), SIGKILL);
}

TEST(QKCommandLineProcessTest, ForwardsToItsTaskAndHandsItselfToTheHandler) {
    auto process = QKCommandLineProcess::init();
    ASSERT_NE(process->task(), nullptr);
    process->setExecutableURL(testing::probePath());
    process->setArguments({"exit", "5"});
    process->setEnvironment(ChildProcess::Environment{{"A", "1"}});
    process->setCurrentDirectoryURL("/");
    process->setStandardOutput(ProcessStandardStream::nullDevice());
    process->setQualityOfService(QualityOfService::utility);
    EXPECT_EQ(process->task()->executableURL(), testing::probePath());
    EXPECT_EQ(process->arguments(), (std::vector<std::string>{"exit", "5"}));
    EXPECT_EQ(process->environment()->at("A"), "1");
    EXPECT_EQ(process->currentDirectoryURL(), "/");
    EXPECT_EQ(process->standardOutput().kind(), ProcessStandardStream::Kind::nullDevice);
    EXPECT_EQ(process->qualityOfService(), QualityOfService::utility);

    std::atomic<const QKCommandLineProcess*> received{nullptr};
    std::atomic<int> status{-1};
    process->setTerminationHandler([&](const std::shared_ptr<QKCommandLineProcess>& ended) {
        received = ended.get();
        status = ended->terminationStatus();
    });
    const QKCommandLineProcess* expected = process.get();
    const std::weak_ptr<QKCommandLineProcess> weak = process;
    const std::shared_ptr<ChildProcess> task = process->task();
    ASSERT_TRUE(process->launchAndReturnError());
    EXPECT_GT(process->processIdentifier(), 0);
    process.reset();  // the running child keeps its wrapper
    task->waitUntilExit();
    EXPECT_EQ(received.load(), expected);
    EXPECT_EQ(status.load(), 5);
    EXPECT_TRUE(testing::eventually([&] { return weak.expired(); }));  // and then lets it go

    auto wrapped = QKCommandLineProcess::initWithTask(task);
    EXPECT_EQ(wrapped->task(), task);
    EXPECT_EQ(wrapped->terminationStatus(), 5);

    auto none = QKCommandLineProcess::initNoTask();
    EXPECT_EQ(none->task(), nullptr);
    none->setArguments({"ignored"});
    EXPECT_TRUE(none->arguments().empty());
    EXPECT_FALSE(none->isRunning());
    std::optional<Error> error;
    EXPECT_FALSE(none->launchAndReturnError(&error));
    EXPECT_STREQ(error->as<ProcessError>()->what(), "Could not launch: there is no process.");
}

TEST(QKCommandLineProcessTest, AWrapperThatNeverLaunchesIsReleased) {
    std::weak_ptr<QKCommandLineProcess> weak;
    {
        auto process = QKCommandLineProcess::init();
        process->setTerminationHandler([](const std::shared_ptr<QKCommandLineProcess>&) {});
        weak = process;
    }
    EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace mirels
