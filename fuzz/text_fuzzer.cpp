// Feeds arbitrary bytes to the text utilities. The first byte picks what to check:
// - Punycode: decoding either fails with a `PunycodeError` or gives code points that encode and
//   decode back to themselves; encoding valid UTF-8 decodes back to it; host names convert both
//   ways without anything but `PunycodeError` escaping.
// - Line diffs: the rest is cut at its first 0xFF byte into two texts; the edit script applied to
//   the first gives the second (with and without a small cost cap), and the rendered unified diff,
//   applied by a small applier here, gives the second too.
// - Identifier words: every word is a non-empty run of letters and digits of the identifier.
// Anything else aborts.
//
// Built three ways: `mirels_text_fuzzer` reads the selector byte; `mirels_punycode_fuzzer` and
// `mirels_diff_fuzzer` (MIRELS_TEXT_FUZZ_ONLY set to 0 or 1) spend every input on one check, so
// a run of a given length explores that one as deeply as the others' runs explore theirs.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "mirels/text/IdentifierWords.h"
#include "mirels/text/LineDiff.h"
#include "mirels/text/Punycode.h"

namespace {

using namespace mirels;

void check(bool condition) {
    if (!condition) std::abort();
}

void fuzzPunycode(std::string_view text) {
    try {
        const std::u32string decoded = Punycode::decodeToCodePoints(text);
        const std::string encoded = Punycode::encode(std::u32string_view(decoded));
        check(Punycode::decodeToCodePoints(encoded) == decoded);
    } catch (const PunycodeError& error) {
        check(error.offset() <= text.size());
        check(!error.message().empty());
    }
    try {
        const std::string encoded = Punycode::encode(text);
        check(Punycode::decode(encoded) == text);
    } catch (const PunycodeError& error) {
        check(error.kind() == PunycodeError::Kind::invalidUtf8);
    }
    try {
        const std::string ascii = Punycode::toAsciiHostName(text);
        for (const char c : ascii) check(static_cast<unsigned char>(c) < 0x80);
        (void)Punycode::toUnicodeHostName(ascii);
    } catch (const PunycodeError&) {
    }
    try {
        (void)Punycode::toUnicodeHostName(text);
    } catch (const PunycodeError&) {
    }
}

/// Applies a unified diff as `patch` would, trusting its line numbers.
std::string applyUnified(std::string_view oldText, std::string_view diff) {
    const std::vector<std::string_view> oldLines = splitLines(oldText);
    const std::vector<std::string_view> diffLines = splitLines(diff);
    std::string out;
    std::size_t oldPosition = 0;
    char previous = 0;
    for (std::size_t i = 2; i < diffLines.size(); ++i) {
        const std::string_view line = diffLines[i];
        if (line.starts_with("@@ -")) {
            std::size_t start = std::strtoul(std::string(line.substr(4)).c_str(), nullptr, 10);
            const std::size_t comma = line.find(',');
            const std::size_t space = line.find(' ', 4);
            const bool empty = comma < space && line.substr(comma, 3) == ",0 ";
            const std::size_t target = empty ? start : start - 1;
            check(target >= oldPosition && target <= oldLines.size());
            for (; oldPosition < target; ++oldPosition) out.append(oldLines[oldPosition]);
            previous = 0;
            continue;
        }
        check(!line.empty());
        const std::string_view body = line.substr(1);
        switch (line[0]) {
            case ' ':
                check(oldPosition < oldLines.size());
                out.append(body);
                ++oldPosition;
                break;
            case '-':
                check(oldPosition < oldLines.size());
                ++oldPosition;
                break;
            case '+':
                out.append(body);
                break;
            case '\\':
                check(previous != 0);
                if (previous != '-') {
                    check(!out.empty() && out.back() == '\n');
                    out.pop_back();
                }
                break;
            default:
                check(false);
        }
        previous = line[0];
    }
    for (; oldPosition < oldLines.size(); ++oldPosition) out.append(oldLines[oldPosition]);
    return out;
}

void fuzzDiff(std::string_view data) {
    const std::size_t cut = data.find('\xFF');
    const std::string_view a = data.substr(0, cut);
    const std::string_view b =
        cut == std::string_view::npos ? std::string_view() : data.substr(cut + 1);
    const EditScript script = EditScript::between(a, b);
    check(script.apply(a) == b);
    check(script.oldLineCount() == splitLines(a).size());
    const EditScript capped = EditScript::between(a, b, DiffOptions{false, 2});
    check(capped.apply(a) == b);
    check(capped.distance() >= script.distance());
    const std::string diff = script.unifiedDiff(a);
    check(diff.empty() == (a == b));
    if (!diff.empty()) check(applyUnified(a, diff) == b);
}

void fuzzIdentifier(std::string_view text) {
    forEachIdentifierWord(text, [&](std::string_view word) {
        check(!word.empty());
        check(word.data() >= text.data() && word.data() + word.size() <= text.data() + text.size());
    });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
#ifdef MIRELS_TEXT_FUZZ_ONLY
    const std::string_view all(reinterpret_cast<const char*>(data), size);
    if constexpr (MIRELS_TEXT_FUZZ_ONLY == 0) {
        fuzzPunycode(all);
    } else {
        fuzzDiff(all);
    }
    return 0;
#endif
    if (size == 0) return 0;
    const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
    switch (data[0] % 3) {
        case 0:
            fuzzPunycode(text);
            break;
        case 1:
            fuzzDiff(text);
            break;
        default:
            fuzzIdentifier(text);
            break;
    }
    return 0;
}
