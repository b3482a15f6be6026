#include "mirels/text/Regex.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <cstring>

#include "mirels/platform/Log.h"

namespace mirels {

namespace {

constexpr std::uint32_t matchLimit = 10'000'000;
constexpr std::uint32_t depthLimit = 100'000;
constexpr std::uint32_t heapLimitKibibytes = 64 * 1024;
constexpr std::size_t jitStackStart = std::size_t{32} * 1024;
constexpr std::size_t jitStackMaximum = std::size_t{8} * 1024 * 1024;

static_assert(Regex::multiline == PCRE2_MULTILINE);

/// What one thread reuses for every search: a match block, a match context with the limits, and
/// the JIT stack. Made on the thread's first search, freed when the thread ends.
struct ThreadSearchState {
    pcre2_match_data* matchData = nullptr;
    pcre2_match_context* context = nullptr;
    pcre2_jit_stack* jitStack = nullptr;

    ThreadSearchState() {
        matchData = pcre2_match_data_create(RegexMatch::maximumGroups, nullptr);
        context = pcre2_match_context_create(nullptr);
        if (context != nullptr) {
            pcre2_set_match_limit(context, matchLimit);
            pcre2_set_depth_limit(context, depthLimit);
            pcre2_set_heap_limit(context, heapLimitKibibytes);
            jitStack = pcre2_jit_stack_create(jitStackStart, jitStackMaximum, nullptr);
            // Without a stack of our own the JIT uses its 32 KiB default, which is enough for
            // short lines only; a failed creation still leaves a working (smaller) engine.
            if (jitStack != nullptr) pcre2_jit_stack_assign(context, nullptr, jitStack);
        }
    }
    ~ThreadSearchState() {
        pcre2_jit_stack_free(jitStack);
        pcre2_match_context_free(context);
        pcre2_match_data_free(matchData);
    }
    ThreadSearchState(const ThreadSearchState&) = delete;
    ThreadSearchState& operator=(const ThreadSearchState&) = delete;
};

ThreadSearchState& threadSearchState() {
    thread_local ThreadSearchState state;
    return state;
}

std::string errorText(int code) {
    PCRE2_UCHAR buffer[256];
    const int length = pcre2_get_error_message(code, buffer, sizeof buffer);
    if (length < 0) return "error " + std::to_string(code);
    return std::string(reinterpret_cast<const char*>(buffer),  // NOLINT(*-reinterpret-cast)
                       static_cast<std::size_t>(length));
}

const Logger& regexLog() {
    static const Logger logger("org.mirels.foundation", "regex");
    return logger;
}

}  // namespace

std::optional<std::string_view> RegexMatch::group(std::size_t number) const noexcept {
    if (number >= count_) return std::nullopt;
    const std::size_t start = offsets_[2 * number];
    const std::size_t end = offsets_[2 * number + 1];
    if (start == unset || end < start || end > subject_.size()) return std::nullopt;
    return subject_.substr(start, end - start);
}

std::optional<std::string_view> RegexMatch::group(std::string_view name) const noexcept {
    if (regex_ == nullptr) return std::nullopt;
    if (auto number = regex_->groupNumber(name)) return group(*number);
    return std::nullopt;
}

std::unique_ptr<Regex> Regex::compile(std::string_view pattern, std::uint32_t options,
                                      std::string* errorMessage) {
    int errorCode = 0;
    PCRE2_SIZE errorOffset = 0;
    pcre2_code* code =
        pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()),  // NOLINT(*-reinterpret-cast)
                      pattern.size(), options, &errorCode, &errorOffset, nullptr);
    if (code == nullptr) {
        if (errorMessage != nullptr) {
            *errorMessage = errorText(errorCode) + " at offset " + std::to_string(errorOffset);
        }
        return nullptr;
    }
    // JIT where the machine and the build of PCRE2 allow it; the interpreter otherwise.
    const bool jit = pcre2_jit_compile(code, PCRE2_JIT_COMPLETE) == 0;
    return std::unique_ptr<Regex>(new Regex(code, jit, std::string(pattern)));
}

Regex::~Regex() {
    pcre2_code_free(static_cast<pcre2_code*>(code_));
}

std::optional<std::size_t> Regex::groupNumber(std::string_view name) const noexcept {
    // Names are short; a terminated copy on the stack avoids an allocation.
    char buffer[64];
    if (name.size() >= sizeof buffer) return std::nullopt;
    std::memcpy(buffer, name.data(), name.size());
    buffer[name.size()] = '\0';
    const int number = pcre2_substring_number_from_name(
        static_cast<const pcre2_code*>(code_),
        reinterpret_cast<PCRE2_SPTR>(buffer));  // NOLINT(*-reinterpret-cast)
    if (number < 0) return std::nullopt;
    return static_cast<std::size_t>(number);
}

std::optional<RegexMatch> Regex::firstMatch(std::string_view subject) const {
    ThreadSearchState& state = threadSearchState();
    if (state.matchData == nullptr || state.context == nullptr) return std::nullopt;
    const auto* code = static_cast<const pcre2_code*>(code_);
    const auto* text = reinterpret_cast<PCRE2_SPTR>(subject.data());  // NOLINT(*-reinterpret-cast)
    // An empty view may have a null pointer, which PCRE2 accepts only with a zero length.
    static constexpr PCRE2_UCHAR empty[1] = {0};
    if (text == nullptr) text = empty;
    const int rc =
        jit_ ? pcre2_jit_match(code, text, subject.size(), 0, 0, state.matchData, state.context)
             : pcre2_match(code, text, subject.size(), 0, 0, state.matchData, state.context);
    if (rc == PCRE2_ERROR_NOMATCH) return std::nullopt;
    if (rc < 0) {
        regexLog().error(
            "Regular expression search gave up (%{public}@) on a line of %zu bytes; "
            "counted as no match",
            errorText(rc), subject.size());
        return std::nullopt;
    }
    RegexMatch match;
    match.regex_ = this;
    match.subject_ = subject;
    // rc == 0 means the match block had too few slots: every slot it has is filled.
    const std::uint32_t pairs = pcre2_get_ovector_count(state.matchData);
    const std::size_t filled = rc == 0 ? pairs : static_cast<std::size_t>(rc);
    match.count_ = std::min<std::size_t>(filled, RegexMatch::maximumGroups);
    const PCRE2_SIZE* ovector = pcre2_get_ovector_pointer(state.matchData);
    for (std::size_t i = 0; i < match.count_; ++i) {
        match.offsets_[2 * i] = ovector[2 * i] == PCRE2_UNSET ? RegexMatch::unset : ovector[2 * i];
        match.offsets_[2 * i + 1] =
            ovector[2 * i + 1] == PCRE2_UNSET ? RegexMatch::unset : ovector[2 * i + 1];
    }
    return match;
}

}  // namespace mirels
