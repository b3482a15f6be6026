// Build numbers beside what a user would otherwise write: parsing a build string against
// std::sscanf and a std::regex match, and sorting 1,000 builds against sorting their strings
// (which puts "10A1" before "9A1", so it is the cost floor, not an equivalent).

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "mirels/version/BuildNumber.h"
#include "mirels/version/VersionNumber.h"
#include "support/BenchSupport.h"

namespace {

using mirels::BuildNumber;
using mirels::bench::AllocationCounter;

constexpr const char* buildText = "21C5021a";

void BuildNumber_parse(benchmark::State& state) {
    AllocationCounter counter(state);
    for (auto _ : state) {
        std::string_view text = buildText;
        benchmark::DoNotOptimize(text);
        BuildNumber build(text);
        benchmark::DoNotOptimize(build);
    }
}
BENCHMARK(BuildNumber_parse);

// The usual hand-written reader: four conversions and a check that nothing is left.
void Sscanf_parse(benchmark::State& state) {
    AllocationCounter counter(state);
    for (auto _ : state) {
        const char* text = buildText;
        benchmark::DoNotOptimize(text);
        long long release = 0;
        long long build = 0;
        char train = 0;
        char suffix = 0;
        int consumed = 0;
        int fields =
            std::sscanf(text, "%lld%c%lld%c%n", &release, &train, &build, &suffix, &consumed);
        benchmark::DoNotOptimize(fields);
        benchmark::DoNotOptimize(release + build + train + suffix + consumed);
    }
}
BENCHMARK(Sscanf_parse);

void StdRegex_parse(benchmark::State& state) {
    static const std::regex pattern("([0-9]+)([A-Za-z])([0-9]+)([A-Za-z]?)");
    AllocationCounter counter(state);
    for (auto _ : state) {
        const char* text = buildText;
        benchmark::DoNotOptimize(text);
        std::cmatch match;
        bool matched = std::regex_match(text, match, pattern);
        benchmark::DoNotOptimize(matched);
        long long release = std::strtoll(match[1].first, nullptr, 10);
        long long build = std::strtoll(match[3].first, nullptr, 10);
        benchmark::DoNotOptimize(release + build);
    }
}
BENCHMARK(StdRegex_parse);

void VersionNumber_parse(benchmark::State& state) {
    AllocationCounter counter(state);
    for (auto _ : state) {
        std::string_view text = "6.1.12";
        benchmark::DoNotOptimize(text);
        auto version = mirels::VersionNumber::fromString(text);
        benchmark::DoNotOptimize(version);
    }
}
BENCHMARK(VersionNumber_parse);

std::vector<std::string> buildStrings() {
    std::mt19937 random(42);
    std::vector<std::string> texts;
    texts.reserve(1000);
    for (int i = 0; i < 1000; ++i) {
        std::string text = std::to_string(1 + random() % 30);
        text += static_cast<char>('A' + random() % 26);
        text += std::to_string(1 + random() % 9999);
        if (random() % 3 == 0) text += static_cast<char>('a' + random() % 26);
        texts.push_back(std::move(text));
    }
    return texts;
}

void BuildNumber_sort1000(benchmark::State& state) {
    std::vector<BuildNumber> original;
    for (const auto& text : buildStrings()) original.emplace_back(text);
    std::vector<BuildNumber> builds = original;
    for (auto _ : state) {
        builds = original;  // the copy is timed too, alike for both
        std::sort(builds.begin(), builds.end());
        benchmark::DoNotOptimize(builds.data());
    }
}
BENCHMARK(BuildNumber_sort1000);

void String_sort1000(benchmark::State& state) {
    const std::vector<std::string> original = buildStrings();
    std::vector<std::string> texts = original;
    for (auto _ : state) {
        texts = original;
        std::sort(texts.begin(), texts.end());
        benchmark::DoNotOptimize(texts.data());
    }
}
BENCHMARK(String_sort1000);

}  // namespace

int main(int argc, char** argv) {
    return mirels::bench::runBenchmarks(argc, argv);
}
