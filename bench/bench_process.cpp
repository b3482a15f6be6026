// Launching a child, capturing its output and waiting for it: a tool invocation against a
// hand-written posix_spawn + pipe + read + waitpid and against Boost.Process v1. Then the same
// launch from a parent with 1 GiB of touched memory and from one with a descriptor limit of
// 1,048,576 (neither may slow a launch down), and the capture of 100 MB of output against reading
// `cat file` through a pipe into nowhere.
//
// Run with --benchmark_filter to pick a group; the large-parent and high-limit cases change the
// whole process (they allocate or raise the limit once, on first use).

#define BOOST_PROCESS_USE_STD_FS 1
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/process.hpp>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "mirels/cli/ChildProcess.h"
#include "mirels/cli/CommandLineToolInvocation.h"
#include "support/BenchSupport.h"

extern char** environ;

namespace {

using mirels::CommandLineToolInvocation;

CommandLineToolInvocation::Environment parentEnvironment() {
    CommandLineToolInvocation::Environment environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        std::string_view text(*entry);
        const std::size_t equals = text.find('=');
        if (equals == std::string_view::npos) continue;
        environment.emplace(std::string(text.substr(0, equals)),
                            std::string(text.substr(equals + 1)));
    }
    return environment;
}

CommandLineToolInvocation invocationOf(std::string path, std::vector<std::string> arguments) {
    return CommandLineToolInvocation(std::move(path), std::move(arguments), parentEnvironment(),
                                     std::nullopt, "bench", std::nullopt, false,
                                     mirels::CommandLineToolInvocationError::failedWhenRunning,
                                     mirels::CommandLineToolInvocationError::failedToLaunch);
}

std::string runInvocation(const CommandLineToolInvocation& invocation) {
    auto termination = invocation.run().unpleasantWait();
    return *termination.resultIfCompleted()->successValue();
}

/// The hand-written way: a pipe, posix_spawn, read to the end, waitpid.
std::string runHandWritten(const char* path, const char* argument, bool keep = true) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) std::abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    char* argv[] = {const_cast<char*>(path), const_cast<char*>(argument), nullptr};
    pid_t pid = 0;
    if (::posix_spawn(&pid, path, &actions, nullptr, argv, environ) != 0) std::abort();
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    std::string output;
    char buffer[65536];
    ssize_t count = 0;
    std::size_t total = 0;
    while ((count = ::read(fds[0], buffer, sizeof buffer)) > 0) {
        if (keep) output.append(buffer, static_cast<std::size_t>(count));
        total += static_cast<std::size_t>(count);
    }
    ::close(fds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!keep) output.assign(std::to_string(total));
    return output;
}

std::string runBoost(const char* path, const char* argument) {
    namespace bp = boost::process;
    bp::ipstream stream;
    bp::child child(path, argument, bp::std_out > stream);
    std::string output((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    child.wait();
    return output;
}

// --- launch, capture, wait ---

void Echo_Invocation(benchmark::State& state) {
    const auto invocation = invocationOf("/bin/echo", {"hello"});
    for (auto _ : state) benchmark::DoNotOptimize(runInvocation(invocation));
}

void Echo_ChildProcess(benchmark::State& state) {
    for (auto _ : state) {
        auto child = mirels::ChildProcess::create();
        child->setExecutableURL("/bin/echo");
        child->setArguments({"hello"});
        auto pipe = mirels::Pipe::create();
        child->setStandardOutput(mirels::ProcessStandardStream::pipe(pipe));
        child->launch();
        benchmark::DoNotOptimize(pipe->fileHandleForReading()->readDataToEndOfFile());
        child->waitUntilExit();
    }
}

void Echo_HandWrittenPosixSpawn(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(runHandWritten("/bin/echo", "hello"));
}

void Echo_BoostProcess(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(runBoost("/bin/echo", "hello"));
}

BENCHMARK(Echo_Invocation)->UseRealTime();
BENCHMARK(Echo_ChildProcess)->UseRealTime();
BENCHMARK(Echo_HandWrittenPosixSpawn)->UseRealTime();
BENCHMARK(Echo_BoostProcess)->UseRealTime();

// --- the same from a large parent ---

void touchOneGibibyte() {
    static char* memory = [] {
        constexpr std::size_t size = std::size_t{1} << 30;
        auto* block = static_cast<char*>(std::malloc(size));
        for (std::size_t i = 0; i < size; i += 4096) block[i] = 1;
        return block;
    }();
    benchmark::DoNotOptimize(memory);
}

void LargeParentEcho_Invocation(benchmark::State& state) {
    touchOneGibibyte();
    Echo_Invocation(state);
}
void LargeParentEcho_HandWrittenPosixSpawn(benchmark::State& state) {
    touchOneGibibyte();
    Echo_HandWrittenPosixSpawn(state);
}
void LargeParentEcho_BoostProcess(benchmark::State& state) {
    touchOneGibibyte();
    Echo_BoostProcess(state);
}

BENCHMARK(LargeParentEcho_Invocation)->UseRealTime();
BENCHMARK(LargeParentEcho_HandWrittenPosixSpawn)->UseRealTime();
BENCHMARK(LargeParentEcho_BoostProcess)->UseRealTime();

// --- the same with a descriptor limit of 1,048,576 ---

void raiseDescriptorLimit(benchmark::State& state) {
    rlimit limit{1 << 20, 1 << 20};
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    ::getrlimit(RLIMIT_NOFILE, &limit);
    state.counters["nofile"] = static_cast<double>(limit.rlim_cur);
}

void HighLimitEcho_Invocation(benchmark::State& state) {
    raiseDescriptorLimit(state);
    Echo_Invocation(state);
}
void HighLimitEcho_BoostProcess(benchmark::State& state) {
    raiseDescriptorLimit(state);
    Echo_BoostProcess(state);
}

BENCHMARK(HighLimitEcho_Invocation)->UseRealTime();
BENCHMARK(HighLimitEcho_BoostProcess)->UseRealTime();

// --- 100 MB of output ---

const std::string& largeFile() {
    static const std::string path = [] {
        std::string name = (std::filesystem::temp_directory_path() / "mirels-bench-100MB").string();
        std::ofstream file(name, std::ios::binary | std::ios::trunc);
        const std::string line(1023, 'x');
        for (int i = 0; i < 100 * 1024; ++i) file << line << '\n';
        return name;
    }();
    return path;
}

constexpr double largeSize = 100.0 * 1024 * 1024;

void Capture100MB_Invocation(benchmark::State& state) {
    const auto invocation = invocationOf("/bin/cat", {largeFile()});
    double capacity = 0;
    for (auto _ : state) {
        std::string output = runInvocation(invocation);
        capacity = static_cast<double>(output.capacity());
        benchmark::DoNotOptimize(output);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * largeSize));
    state.counters["capacity/size"] = capacity / largeSize;
}

void Capture100MB_CatThroughPipeDiscarded(benchmark::State& state) {
    const std::string& path = largeFile();
    for (auto _ : state) benchmark::DoNotOptimize(runHandWritten("/bin/cat", path.c_str(), false));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * largeSize));
}

BENCHMARK(Capture100MB_Invocation)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Capture100MB_CatThroughPipeDiscarded)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    return mirels::bench::runBenchmarks(argc, argv);
}
