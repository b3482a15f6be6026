#pragma once

#include "mirels/Export.h"

// Compiled regular expressions for recognising crash text and build output: PCRE2 (8-bit code
// units, byte semantics unless a pattern asks otherwise), JIT-compiled where the machine allows.
//
// Searching never allocates: each thread keeps one match block and one JIT stack, made on its
// first search and reused for every pattern. The JIT stack is large enough (8 MiB, reserved
// lazily by the kernel) for patterns such as "(.|\n)*" over lines of many kilobytes. A search
// that hits a resource limit of the engine (the match limit of ten million steps, the JIT stack,
// the interpreter's depth or heap limit) is logged and counts as no match: long lines and binary
// junk never crash, hang or throw.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace mirels {

class Regex;

/// One match: the whole match and the capture groups, as views into the searched text (valid
/// while that text lives). Keeps the first 16 groups (group 0 is the whole match).
class MIRELS_EXPORT RegexMatch {
  public:
    static constexpr std::size_t maximumGroups = 16;

    /// Group `number` (0 is the whole match); nothing when it did not take part in the match.
    std::optional<std::string_view> group(std::size_t number) const noexcept;
    /// The named group `name`; nothing when there is no such group or it did not take part.
    std::optional<std::string_view> group(std::string_view name) const noexcept;

  private:
    friend class Regex;
    static constexpr std::size_t unset = ~std::size_t{0};

    const Regex* regex_ = nullptr;
    std::string_view subject_;
    std::size_t count_ = 0;
    std::size_t offsets_[2 * maximumGroups] = {};
};

/// A compiled pattern. Immutable and safe to search from many threads at once.
class MIRELS_EXPORT Regex {
  public:
    /// PCRE2 compile options this library uses.
    enum Options : std::uint32_t {
        none = 0,
        /// "^" and "$" also match at line feeds inside the text.
        multiline = 0x00000400u,  // PCRE2_MULTILINE
    };

    /// Compiles `pattern` (and JIT-compiles it where possible). On failure returns null and, when
    /// `errorMessage` is given, stores "message at offset N" there.
    static std::unique_ptr<Regex> compile(std::string_view pattern, std::uint32_t options = none,
                                          std::string* errorMessage = nullptr);

    Regex(const Regex&) = delete;
    Regex& operator=(const Regex&) = delete;
    ~Regex();

    /// The first match anywhere in `subject`, or nothing.
    std::optional<RegexMatch> firstMatch(std::string_view subject) const;

    /// Whether the pattern runs as JIT code.
    bool isJitCompiled() const noexcept { return jit_; }
    const std::string& pattern() const noexcept { return pattern_; }
    /// The number of the named group `name`, or nothing.
    std::optional<std::size_t> groupNumber(std::string_view name) const noexcept;
    /// The compiled PCRE2 code (`pcre2_code_8*`), for measuring against the raw engine.
    const void* code() const noexcept { return code_; }

  private:
    Regex(void* code, bool jit, std::string pattern) noexcept
        : code_(code), jit_(jit), pattern_(std::move(pattern)) {}

    void* code_;
    bool jit_;
    std::string pattern_;
};

}  // namespace mirels
