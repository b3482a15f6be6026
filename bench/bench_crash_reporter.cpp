// What the crash reporter costs: a program run under it against the same program run as a plain
// child process (a 1-second CPU-bound run, and 1,000 short launches), and the time from a fatal
// signal 50 frames deep to the symbolised report on disk, with the share spent unwinding and
// symbolising. Wall and processor time (user and system: the costs are system calls and the
// child's own work); run it on a quiet machine:
//   bench_crash_reporter [spin | launches [N] | report | N]
//
// The children are this program itself, started with "--child spin|deep|exit".

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "mirels/crash/CrashReporter.h"

// A function that stays a function of its own (one frame per call), whatever the optimiser would
// like to do.
#if defined(__clang__)
#define KEEP_FRAME __attribute__((noinline, optnone))
#else
#define KEEP_FRAME __attribute__((noipa))
#endif

namespace {

using Clock = std::chrono::steady_clock;

volatile int* volatile nowhere = nullptr;

KEEP_FRAME void crashAtTheBottom() {
    *nowhere = 1;
}

KEEP_FRAME int descend(int depth) {
    if (depth <= 1) {
        crashAtTheBottom();
        return 0;
    }
    const int below = descend(depth - 1);
    asm volatile("" ::: "memory");
    return below + 1;
}

int runChildMode(int argc, char** argv) {
    const std::string mode = argv[2];
    if (mode == "spin") {
        // About a second of arithmetic, the same amount every time.
        volatile std::uint64_t value = 1;
        for (std::uint64_t i = 0; i < 700'000'000ULL; ++i)
            value = value * 6364136223846793005ULL + 1;
        return 0;
    }
    if (mode == "deep") return descend(argc > 3 ? std::atoi(argv[3]) : 50);
    return 0;
}

std::string selfPath() {
    return std::filesystem::read_symlink("/proc/self/exe").string();
}

std::shared_ptr<mirels::ChildProcess> makeChild(const std::string& path,
                                                std::vector<std::string> arguments) {
    auto child = mirels::ChildProcess::create();
    child->setExecutableURL(path);
    child->setArguments(std::move(arguments));
    child->setStandardError(mirels::ProcessStandardStream::nullDevice());
    return child;
}

double seconds(Clock::duration duration) {
    return std::chrono::duration<double>(duration).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct Timing {
    double wall = 0;
    double user = 0;
    double system = 0;
};

/// User and system seconds so far of this process and its reaped children: on a loaded machine
/// these move far less than wall time.
Timing processorSoFar() {
    Timing total;
    for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage{};
        ::getrusage(who, &usage);
        total.user += static_cast<double>(usage.ru_utime.tv_sec) +
                      static_cast<double>(usage.ru_utime.tv_usec) / 1e6;
        total.system += static_cast<double>(usage.ru_stime.tv_sec) +
                        static_cast<double>(usage.ru_stime.tv_usec) / 1e6;
    }
    return total;
}

/// Adds to `timing` the wall and processor seconds of `count` runs of the program, plain or
/// under `reporter`.
void timeRuns(const std::string& path, const std::vector<std::string>& arguments, int count,
              const std::shared_ptr<mirels::CrashReporter>& reporter, Timing& timing) {
    const Timing before = processorSoFar();
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
        auto child = makeChild(path, arguments);
        if (reporter) {
            (void)reporter->launch(child).waitUntilDone();
        } else {
            child->launch();
            child->waitUntilExit();
        }
    }
    const Timing after = processorSoFar();
    timing.wall += seconds(Clock::now() - start);
    timing.user += after.user - before.user;
    timing.system += after.system - before.system;
}

void printComparison(const std::string& what, int count, const Timing& plain,
                     const Timing& reported) {
    const double plainProcessor = plain.user + plain.system;
    const double reportedProcessor = reported.user + reported.system;
    std::printf(
        "%s: wall plain %.3f s (%.0f us each), under the reporter %.3f s (%.0f us each): "
        "%.3fx; processor %.3f s (user %.3f, system %.3f) against %.3f s (user %.3f, system "
        "%.3f): %.3fx\n",
        what.c_str(), plain.wall, plain.wall / count * 1e6, reported.wall,
        reported.wall / count * 1e6, reported.wall / plain.wall, plainProcessor, plain.user,
        plain.system, reportedProcessor, reported.user, reported.system,
        reportedProcessor / plainProcessor);
}

/// The 1-second CPU-bound run, plain and under the reporter, three times each: the medians.
void compareSpin(const std::string& self, const std::shared_ptr<mirels::CrashReporter>& reporter) {
    std::vector<Timing> plain(3);
    std::vector<Timing> reported(3);
    for (int round = 0; round < 3; ++round) {
        timeRuns(self, {"--child", "spin"}, 1, nullptr, plain[static_cast<std::size_t>(round)]);
        timeRuns(self, {"--child", "spin"}, 1, reporter, reported[static_cast<std::size_t>(round)]);
    }
    auto byWall = [](const Timing& a, const Timing& b) { return a.wall < b.wall; };
    std::sort(plain.begin(), plain.end(), byWall);
    std::sort(reported.begin(), reported.end(), byWall);
    printComparison("1-second CPU-bound run (median of 3)", 1, plain[1], reported[1]);
}

/// `count` short launches of each program, plain and under the reporter, alternating in blocks
/// of ten so that a change in the machine's load weighs on both sides alike.
void compareLaunches(const std::string& self, int count,
                     const std::shared_ptr<mirels::CrashReporter>& reporter) {
    constexpr int block = 10;
    for (const std::string& program : {std::string("/bin/true"), self}) {
        const std::vector<std::string> arguments = program == self
                                                       ? std::vector<std::string>{"--child", "exit"}
                                                       : std::vector<std::string>{};
        // Warm up both paths (the reporter's threads, the page cache) before measuring.
        Timing ignored;
        timeRuns(program, arguments, block, nullptr, ignored);
        timeRuns(program, arguments, block, reporter, ignored);
        Timing plain;
        Timing reported;
        for (int done = 0; done < count; done += block) {
            const int now = std::min(block, count - done);
            timeRuns(program, arguments, now, nullptr, plain);
            timeRuns(program, arguments, now, reporter, reported);
        }
        const auto size = std::filesystem::file_size(program);
        const std::string what = std::to_string(count) + " launches of " +
                                 std::filesystem::path(program).filename().string() + " (" +
                                 std::to_string(size / 1000) + " kB)";
        printComparison(what, count, plain, reported);
    }
}

/// The time from a fatal signal 50 frames deep to the report on disk, over 21 crashes.
bool measureReports(const std::string& self,
                    const std::shared_ptr<mirels::CrashReporter>& reporter) {
    std::vector<double> total;
    std::vector<double> unwind;
    std::size_t frames = 0;
    for (int round = 0; round < 21; ++round) {
        const auto outcome =
            reporter->launch(makeChild(self, {"--child", "deep", "50"})).waitUntilDone();
        if (!outcome.report || outcome.timings.signalToReportNanoseconds == 0) {
            std::fprintf(stderr, "no traced report\n");
            return false;
        }
        frames = outcome.report->frames().size();
        total.push_back(static_cast<double>(outcome.timings.signalToReportNanoseconds) / 1e6);
        unwind.push_back(static_cast<double>(outcome.timings.unwindNanoseconds) / 1e6);
        if (outcome.reportPath) std::filesystem::remove(*outcome.reportPath);
    }
    const auto size = std::filesystem::file_size(self);
    std::printf(
        "fatal signal to report on disk, %zu frames, program of %.1f MB: median %.2f ms "
        "(unwinding and symbolising %.2f ms, %.0f%%), worst %.2f ms\n",
        frames, static_cast<double>(size) / 1e6, median(total), median(unwind),
        100.0 * median(unwind) / median(total), *std::max_element(total.begin(), total.end()));
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 2 && std::strcmp(argv[1], "--child") == 0) return runChildMode(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    // "spin", "launches [N]", "report", or everything (with N launches when the first argument
    // is a number).
    const std::string mode =
        argc > 1 && std::isdigit(static_cast<unsigned char>(argv[1][0])) == 0 ? argv[1] : "all";
    const char* countArgument =
        mode == "all" ? (argc > 1 ? argv[1] : nullptr) : (argc > 2 ? argv[2] : nullptr);
    const int launches = countArgument != nullptr ? std::max(1, std::atoi(countArgument)) : 1000;
    if (mode != "all" && mode != "spin" && mode != "launches" && mode != "report") {
        std::fprintf(stderr, "usage: %s [spin | launches [N] | report | N]\n", argv[0]);
        return 2;
    }
    const std::string self = selfPath();
    const auto folder = std::filesystem::temp_directory_path() / "mirels-bench-crash-reports";
    auto reporter = mirels::CrashReporter::create(folder);

    bool ok = true;
    if (mode == "all" || mode == "spin") compareSpin(self, reporter);
    if (mode == "all" || mode == "launches") compareLaunches(self, launches, reporter);
    if (mode == "all" || mode == "report") ok = measureReports(self, reporter);
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return ok ? 0 : 1;
}
