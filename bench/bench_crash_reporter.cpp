// What the crash reporter costs: a program run under it against the same program run as a plain
// child process (a 1-second CPU-bound run, and 1,000 short launches), and the time from a fatal
// signal 50 frames deep to the symbolised report on disk, with the share spent unwinding and
// symbolising. Wall time only (the costs are system calls and the child's own work); run it on
// a quiet machine: bench_crash_reporter [launches]
//
// The children are this program itself, started with "--child spin|deep|exit".

#include <sys/resource.h>
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

/// Processor seconds used so far by this process and its reaped children: on a loaded machine
/// this moves far less than wall time.
double processorSeconds() {
    double total = 0;
    for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage{};
        ::getrusage(who, &usage);
        total += static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                 static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    }
    return total;
}

struct Timing {
    double wall = 0;
    double processor = 0;
};

/// Wall and processor seconds for `count` runs of the program, plain or under `reporter`.
Timing timeRuns(const std::string& path, const std::vector<std::string>& arguments, int count,
                const std::shared_ptr<mirels::CrashReporter>& reporter) {
    const double processorStart = processorSeconds();
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
    return {seconds(Clock::now() - start), processorSeconds() - processorStart};
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 2 && std::strcmp(argv[1], "--child") == 0) return runChildMode(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const int launches = argc > 1 ? std::atoi(argv[1]) : 1000;
    const std::string self = selfPath();
    const auto folder = std::filesystem::temp_directory_path() / "mirels-bench-crash-reports";
    auto reporter = mirels::CrashReporter::create(folder);

    // Medians of three rounds, wall and processor time.
    auto compare = [&](const char* what, const std::string& program,
                       const std::vector<std::string>& arguments, int count) {
        std::vector<double> plain;
        std::vector<double> reported;
        std::vector<double> plainProcessor;
        std::vector<double> reportedProcessor;
        for (int round = 0; round < 3; ++round) {
            const Timing a = timeRuns(program, arguments, count, nullptr);
            const Timing b = timeRuns(program, arguments, count, reporter);
            plain.push_back(a.wall);
            reported.push_back(b.wall);
            plainProcessor.push_back(a.processor);
            reportedProcessor.push_back(b.processor);
        }
        std::printf(
            "%s: wall plain %.3f s (%.0f us each), under the reporter %.3f s (%.0f us each): "
            "%.3fx; processor %.3f s against %.3f s: %.3fx\n",
            what, median(plain), median(plain) / count * 1e6, median(reported),
            median(reported) / count * 1e6, median(reported) / median(plain),
            median(plainProcessor), median(reportedProcessor),
            median(reportedProcessor) / median(plainProcessor));
    };
    compare("1-second CPU-bound run", self, {"--child", "spin"}, 1);

    for (const std::string& program : {std::string("/bin/true"), self}) {
        const std::vector<std::string> arguments = program == self
                                                       ? std::vector<std::string>{"--child", "exit"}
                                                       : std::vector<std::string>{};
        const std::string what = std::to_string(launches) + " launches of " +
                                 std::filesystem::path(program).filename().string();
        compare(what.c_str(), program, arguments, launches);
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
