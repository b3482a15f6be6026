// What the crash reporter costs: a program run under it against the same program run as a plain
// child process (a 1-second CPU-bound run, and 1,000 short launches), and the time from a fatal
// signal 50 frames deep to the symbolised report on disk, with the share spent unwinding and
// symbolising. Wall time only (the costs are system calls and the child's own work); run it on
// a quiet machine: bench_crash_reporter [launches]
//
// The children are this program itself, started with "--child spin|deep|exit".

#include <unistd.h>

#include <algorithm>
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

/// Seconds for `count` runs of the program, plain or under `reporter`.
double timeRuns(const std::string& path, const std::vector<std::string>& arguments, int count,
                const std::shared_ptr<mirels::CrashReporter>& reporter) {
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
    return seconds(Clock::now() - start);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 2 && std::strcmp(argv[1], "--child") == 0) return runChildMode(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const int launches = argc > 1 ? std::atoi(argv[1]) : 1000;
    const std::string self = selfPath();
    const auto folder = std::filesystem::temp_directory_path() / "mirels-bench-crash-reports";
    auto reporter = mirels::CrashReporter::create(folder);

    std::vector<double> plainSpin;
    std::vector<double> reportedSpin;
    for (int round = 0; round < 3; ++round) {
        plainSpin.push_back(timeRuns(self, {"--child", "spin"}, 1, nullptr));
        reportedSpin.push_back(timeRuns(self, {"--child", "spin"}, 1, reporter));
    }
    std::printf("1-second CPU-bound run: plain %.3f s, under the reporter %.3f s: %.3fx\n",
                median(plainSpin), median(reportedSpin), median(reportedSpin) / median(plainSpin));

    for (const std::string& program : {std::string("/bin/true"), self}) {
        const std::vector<std::string> arguments = program == self
                                                       ? std::vector<std::string>{"--child", "exit"}
                                                       : std::vector<std::string>{};
        std::vector<double> plain;
        std::vector<double> reported;
        for (int round = 0; round < 3; ++round) {
            plain.push_back(timeRuns(program, arguments, launches, nullptr));
            reported.push_back(timeRuns(program, arguments, launches, reporter));
        }
        std::printf(
            "%d launches of %s: plain %.3f s (%.0f us each), under the reporter %.3f s "
            "(%.0f us each): %.3fx\n",
            launches, std::filesystem::path(program).filename().c_str(), median(plain),
            median(plain) / launches * 1e6, median(reported), median(reported) / launches * 1e6,
            median(reported) / median(plain));
    }

    std::vector<double> total;
    std::vector<double> unwind;
    std::size_t frames = 0;
    for (int round = 0; round < 21; ++round) {
        const auto outcome =
            reporter->launch(makeChild(self, {"--child", "deep", "50"})).waitUntilDone();
        if (!outcome.report || outcome.timings.signalToReportNanoseconds == 0) {
            std::fprintf(stderr, "no traced report\n");
            return 1;
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
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return 0;
}
