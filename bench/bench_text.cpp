// The text utilities beside what a user would otherwise reach for:
// - Diff/*: two 10,000-line texts that differ in 1% of their lines (a third replaced, a third
//   removed, a third inserted). Ours as an edit script against dtl's shortest edit script, and
//   ours as a rendered unified diff against libgit2's buffer diff rendered into a string the same
//   way; GNU `diff -u` on the same files as a whole process (fork, exec, read, write) for context.
// - DiffLarge/*: two 100,000-line texts with 10% of the lines changed; for peak memory run one
//   case alone under `/usr/bin/time -f %M` (the inputs are made the same way for both).
// - Punycode/*: 1,000 international labels encoded and decoded, and 1,000 host names to and from
//   their "xn--" form, against ICU's UTS #46 conversions (which also map and check the labels).
// - Identifiers/*: splitting 1,000,000 identifiers of every style into words.
//
// Every benchmark reports allocs/op: the allocations its thread made, per iteration.

#include "core/Utf8Encoding.h"
#include "mirels/text/IdentifierWords.h"
#include "mirels/text/LineDiff.h"
#include "mirels/text/Punycode.h"
#include "support/BenchSupport.h"
// clang-format off
#include <benchmark/benchmark.h>
// clang-format on

#include <fcntl.h>
#include <git2.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unicode/uidna.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <dtl/dtl.hpp>
#include <fstream>
#include <random>
#include <string>
#include <string_view>
#include <vector>

extern char** environ;  // NOLINT(readability-redundant-declaration)

namespace mirels {
namespace {

using bench::AllocationCounter;

// --- inputs -------------------------------------------------------------------------------------

std::string sourceLikeLine(std::mt19937_64& random, std::size_t index) {
    static const char* const words[] = {"value", "count", "result", "buffer", "index",
                                        "state", "lane",  "future", "token",  "error"};
    std::string line = "    auto " + std::string(words[random() % 10]) + std::to_string(index) +
                       " = " + words[random() % 10] + "." + words[random() % 10] + "(" +
                       std::to_string(random() % 1000) + ");\n";
    return line;
}

struct TextPair {
    std::string oldText;
    std::string newText;
};

// `lines` lines, of which `changedPercent` are replaced, removed or inserted in equal parts.
TextPair makeTexts(std::size_t lines, std::size_t changedPercent) {
    std::mt19937_64 random(42);
    std::vector<std::string> old;
    old.reserve(lines);
    for (std::size_t i = 0; i < lines; ++i) old.push_back(sourceLikeLine(random, i));
    TextPair pair;
    for (const std::string& line : old) pair.oldText += line;
    const std::size_t every = 100 / changedPercent;
    for (std::size_t i = 0; i < lines; ++i) {
        if (random() % every != 0) {
            pair.newText += old[i];
            continue;
        }
        switch (random() % 3) {
            case 0:  // replaced
                pair.newText += "    // changed\n";
                break;
            case 1:  // removed
                break;
            default:  // inserted before it
                pair.newText += sourceLikeLine(random, lines + i);
                pair.newText += old[i];
                break;
        }
    }
    return pair;
}

const TextPair& smallTexts() {
    static const TextPair pair = makeTexts(10'000, 1);
    return pair;
}

const TextPair& largeTexts() {
    static const TextPair pair = makeTexts(100'000, 10);
    return pair;
}

std::vector<std::string> linesOf(std::string_view text) {
    std::vector<std::string> lines;
    for (std::string_view line : splitLines(text)) lines.emplace_back(line);
    return lines;
}

// --- diff ---------------------------------------------------------------------------------------

void Diff_OursEditScript(benchmark::State& state) {
    const TextPair& texts = smallTexts();
    AllocationCounter counter(state);
    for (auto _ : state) {
        EditScript script = EditScript::between(texts.oldText, texts.newText);
        benchmark::DoNotOptimize(script.distance());
    }
}
BENCHMARK(Diff_OursEditScript)->Unit(benchmark::kMicrosecond);

// dtl works on sequences of lines; splitting is part of its cost as it is part of ours.
void Diff_DtlEditScript(benchmark::State& state) {
    const TextPair& texts = smallTexts();
    AllocationCounter counter(state);
    for (auto _ : state) {
        dtl::Diff<std::string, std::vector<std::string>> diff(linesOf(texts.oldText),
                                                              linesOf(texts.newText));
        diff.compose();
        benchmark::DoNotOptimize(diff.getEditDistance());
    }
}
BENCHMARK(Diff_DtlEditScript)->Unit(benchmark::kMicrosecond);

void Diff_OursUnified(benchmark::State& state) {
    const TextPair& texts = smallTexts();
    AllocationCounter counter(state);
    for (auto _ : state) {
        std::string diff = unifiedDiff(texts.oldText, texts.newText);
        benchmark::DoNotOptimize(diff.data());
    }
}
BENCHMARK(Diff_OursUnified)->Unit(benchmark::kMicrosecond);

struct GitRendering {
    std::string text;
};

int gitHunk(const git_diff_delta*, const git_diff_hunk* hunk, void* payload) {
    auto* out = static_cast<GitRendering*>(payload);
    out->text.append(hunk->header, hunk->header_len);
    return 0;
}

int gitLine(const git_diff_delta*, const git_diff_hunk*, const git_diff_line* line, void* payload) {
    auto* out = static_cast<GitRendering*>(payload);
    if (line->origin == GIT_DIFF_LINE_CONTEXT || line->origin == GIT_DIFF_LINE_ADDITION ||
        line->origin == GIT_DIFF_LINE_DELETION) {
        out->text.push_back(line->origin);
    }
    out->text.append(line->content, line->content_len);
    return 0;
}

std::string gitUnified(const TextPair& texts) {
    GitRendering out;
    out.text = "--- old\n+++ new\n";
    git_diff_options options;
    git_diff_options_init(&options, GIT_DIFF_OPTIONS_VERSION);
    options.context_lines = 3;
    if (git_diff_buffers(texts.oldText.data(), texts.oldText.size(), "old", texts.newText.data(),
                         texts.newText.size(), "new", &options, nullptr, nullptr, gitHunk, gitLine,
                         &out) != 0) {
        std::abort();
    }
    return std::move(out.text);
}

void Diff_LibgitUnified(benchmark::State& state) {
    git_libgit2_init();
    const TextPair& texts = smallTexts();
    AllocationCounter counter(state);
    for (auto _ : state) {
        std::string diff = gitUnified(texts);
        benchmark::DoNotOptimize(diff.data());
    }
}
BENCHMARK(Diff_LibgitUnified)->Unit(benchmark::kMicrosecond);

// The whole `diff -u` process on the same two texts in files, its output to /dev/null.
void Diff_GnuDiffProcess(benchmark::State& state, const TextPair& texts, const char* name) {
    const std::string oldPath = std::string("/tmp/mirels-bench-") + name + "-old.txt";
    const std::string newPath = std::string("/tmp/mirels-bench-") + name + "-new.txt";
    std::ofstream(oldPath) << texts.oldText;
    std::ofstream(newPath) << texts.newText;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    std::string program = "diff";
    std::string flag = "-u";
    char* argv[] = {program.data(), flag.data(), const_cast<char*>(oldPath.c_str()),
                    const_cast<char*>(newPath.c_str()), nullptr};
    for (auto _ : state) {
        pid_t child = 0;
        if (posix_spawnp(&child, "diff", &actions, nullptr, argv, environ) != 0) std::abort();
        int status = 0;
        waitpid(child, &status, 0);
        benchmark::DoNotOptimize(status);
    }
    posix_spawn_file_actions_destroy(&actions);
    std::remove(oldPath.c_str());
    std::remove(newPath.c_str());
}
BENCHMARK_CAPTURE(Diff_GnuDiffProcess, small, smallTexts(), "small")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// --- large diff ---------------------------------------------------------------------------------

void DiffLarge_OursEditScript(benchmark::State& state) {
    const TextPair& texts = largeTexts();
    std::size_t distance = 0;
    for (auto _ : state) {
        EditScript script = EditScript::between(texts.oldText, texts.newText);
        distance = script.distance();
    }
    state.counters["distance"] = static_cast<double>(distance);
    state.counters["inputMiB"] =
        static_cast<double>(texts.oldText.size() + texts.newText.size()) / (1024.0 * 1024.0);
}
BENCHMARK(DiffLarge_OursEditScript)->Unit(benchmark::kMillisecond);

void DiffLarge_LibgitUnified(benchmark::State& state) {
    git_libgit2_init();
    const TextPair& texts = largeTexts();
    for (auto _ : state) {
        std::string diff = gitUnified(texts);
        benchmark::DoNotOptimize(diff.data());
    }
}
BENCHMARK(DiffLarge_LibgitUnified)->Unit(benchmark::kMillisecond);

BENCHMARK_CAPTURE(Diff_GnuDiffProcess, large, largeTexts(), "large")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// --- punycode -----------------------------------------------------------------------------------

// Lower-case labels of one script each (so that every one is a valid host-name label): Latin
// with a few accented letters, Greek, Cyrillic, Hiragana and CJK ideographs.
std::vector<std::string> internationalLabels() {
    std::mt19937_64 random(3);
    const char32_t accents[] = {U'\u00E4', U'\u00F6', U'\u00FC', U'\u00E9', U'\u00E8',
                                U'\u00F1', U'\u00E7', U'\u00E5', U'\u00F8', U'\u00DF'};
    std::vector<std::string> labels;
    for (int i = 0; i < 1000; ++i) {
        std::string label;
        const std::size_t length = 4 + random() % 9;
        for (std::size_t k = 0; k < length; ++k) {
            switch (i % 5) {
                case 0:
                    detail::appendUtf8(label, random() % 4 == 0
                                                  ? accents[random() % 10]
                                                  : U'a' + static_cast<char32_t>(random() % 26));
                    break;
                case 1:
                    detail::appendUtf8(label, U'\u03B1' + static_cast<char32_t>(random() % 25));
                    break;
                case 2:
                    detail::appendUtf8(label, U'\u0430' + static_cast<char32_t>(random() % 32));
                    break;
                case 3:
                    detail::appendUtf8(label, U'\u3041' + static_cast<char32_t>(random() % 80));
                    break;
                default:
                    detail::appendUtf8(label, U'\u4E00' + static_cast<char32_t>(random() % 2000));
                    break;
            }
        }
        labels.push_back(std::move(label));
    }
    return labels;
}

const std::vector<std::string>& labels() {
    static const std::vector<std::string> all = internationalLabels();
    return all;
}

const std::vector<std::string>& encodedLabels() {
    static const std::vector<std::string> all = [] {
        std::vector<std::string> out;
        for (const std::string& label : labels()) out.push_back(Punycode::encode(label));
        return out;
    }();
    return all;
}

const std::vector<std::string>& hostNames() {
    static const std::vector<std::string> all = [] {
        std::vector<std::string> out;
        const std::vector<std::string>& l = labels();
        for (std::size_t i = 0; i < l.size(); ++i) {
            out.push_back("www." + l[i] + "." + l[(i * 7 + 3) % l.size()] + ".example");
        }
        return out;
    }();
    return all;
}

const std::vector<std::string>& asciiHostNames() {
    static const std::vector<std::string> all = [] {
        std::vector<std::string> out;
        for (const std::string& host : hostNames()) out.push_back(Punycode::toAsciiHostName(host));
        return out;
    }();
    return all;
}

UIDNA* icu() {
    static UIDNA* idna = [] {
        UErrorCode error = U_ZERO_ERROR;
        UIDNA* made = uidna_openUTS46(UIDNA_DEFAULT, &error);
        if (U_FAILURE(error)) std::abort();
        return made;
    }();
    return idna;
}

using IcuConversion = int32_t (*)(const UIDNA*, const char*, int32_t, char*, int32_t, UIDNAInfo*,
                                  UErrorCode*);

void runIcu(benchmark::State& state, const std::vector<std::string>& inputs,
            IcuConversion convert) {
    UIDNA* idna = icu();
    char buffer[512];
    AllocationCounter counter(state);
    for (auto _ : state) {
        for (const std::string& input : inputs) {
            UErrorCode error = U_ZERO_ERROR;
            UIDNAInfo info = UIDNA_INFO_INITIALIZER;
            const int32_t length = convert(idna, input.data(), static_cast<int32_t>(input.size()),
                                           buffer, sizeof buffer, &info, &error);
            benchmark::DoNotOptimize(length);
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(inputs.size()));
}

template <class Convert>
void runOurs(benchmark::State& state, const std::vector<std::string>& inputs, Convert convert) {
    AllocationCounter counter(state);
    for (auto _ : state) {
        for (const std::string& input : inputs) {
            std::string out = convert(input);
            benchmark::DoNotOptimize(out.data());
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(inputs.size()));
}

void Punycode_OursEncodeLabels(benchmark::State& state) {
    runOurs(state, labels(), [](const std::string& label) { return Punycode::encode(label); });
}
BENCHMARK(Punycode_OursEncodeLabels);

void Punycode_IcuEncodeLabels(benchmark::State& state) {
    runIcu(state, labels(), uidna_labelToASCII_UTF8);
}
BENCHMARK(Punycode_IcuEncodeLabels);

void Punycode_OursDecodeLabels(benchmark::State& state) {
    runOurs(state, encodedLabels(),
            [](const std::string& encoded) { return Punycode::decode(encoded); });
}
BENCHMARK(Punycode_OursDecodeLabels);

// ICU reads the label with its "xn--" prefix.
void Punycode_IcuDecodeLabels(benchmark::State& state) {
    static const std::vector<std::string> prefixed = [] {
        std::vector<std::string> out;
        for (const std::string& encoded : encodedLabels()) out.push_back("xn--" + encoded);
        return out;
    }();
    runIcu(state, prefixed, uidna_labelToUnicodeUTF8);
}
BENCHMARK(Punycode_IcuDecodeLabels);

void Punycode_OursToAsciiHostNames(benchmark::State& state) {
    runOurs(state, hostNames(),
            [](const std::string& host) { return Punycode::toAsciiHostName(host); });
}
BENCHMARK(Punycode_OursToAsciiHostNames);

void Punycode_IcuToAsciiHostNames(benchmark::State& state) {
    runIcu(state, hostNames(), uidna_nameToASCII_UTF8);
}
BENCHMARK(Punycode_IcuToAsciiHostNames);

void Punycode_OursToUnicodeHostNames(benchmark::State& state) {
    runOurs(state, asciiHostNames(),
            [](const std::string& host) { return Punycode::toUnicodeHostName(host); });
}
BENCHMARK(Punycode_OursToUnicodeHostNames);

void Punycode_IcuToUnicodeHostNames(benchmark::State& state) {
    runIcu(state, asciiHostNames(), uidna_nameToUnicodeUTF8);
}
BENCHMARK(Punycode_IcuToUnicodeHostNames);

// --- identifiers --------------------------------------------------------------------------------

std::vector<std::string> makeIdentifiers() {
    static const char* const words[] = {"url",    "session", "task", "value",   "ipv6", "address",
                                        "base64", "encoded", "http", "request", "id",   "json"};
    std::mt19937_64 random(11);
    std::vector<std::string> identifiers;
    identifiers.reserve(1'000'000);
    for (int i = 0; i < 1'000'000; ++i) {
        const std::size_t count = 2 + random() % 3;
        const int style = i % 5;
        std::string identifier;
        for (std::size_t k = 0; k < count; ++k) {
            std::string word = words[random() % 12];
            if (style == 3 && k > 0) identifier.push_back('_');
            if (style == 4 && k > 0) identifier.push_back('-');
            if ((style == 0 && k > 0) || style == 1) word[0] = static_cast<char>(word[0] - 32);
            if (style == 2) {  // acronyms in capitals, other words capitalised
                if (word.size() <= 4) {
                    for (char& c : word) c = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c;
                } else {
                    word[0] = static_cast<char>(word[0] - 32);
                }
            }
            identifier += word;
        }
        identifiers.push_back(std::move(identifier));
    }
    return identifiers;
}

const std::vector<std::string>& identifiers() {
    static const std::vector<std::string> all = makeIdentifiers();
    return all;
}

void Identifiers_ForEachWord(benchmark::State& state) {
    const std::vector<std::string>& all = identifiers();
    AllocationCounter counter(state);
    std::size_t words = 0;
    for (auto _ : state) {
        for (const std::string& identifier : all) {
            forEachIdentifierWord(identifier, [&](std::string_view) { ++words; });
        }
    }
    benchmark::DoNotOptimize(words);
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(all.size()));
}
BENCHMARK(Identifiers_ForEachWord)->Unit(benchmark::kMillisecond);

void Identifiers_WordVectors(benchmark::State& state) {
    const std::vector<std::string>& all = identifiers();
    AllocationCounter counter(state);
    for (auto _ : state) {
        for (const std::string& identifier : all) {
            std::vector<std::string_view> words = identifierWords(identifier);
            benchmark::DoNotOptimize(words.data());
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(all.size()));
}
BENCHMARK(Identifiers_WordVectors)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace mirels

int main(int argc, char** argv) {
    return mirels::bench::runBenchmarks(argc, argv);
}
