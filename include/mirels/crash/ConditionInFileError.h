#pragma once

// `ConditionInFileError`: a process stopped at a failed check in a source file.

#include <cstdint>
#include <optional>
#include <string>

#include "mirels/Export.h"
#include "mirels/crash/CrashReportError.h"

namespace mirels {

/// A process stopped at a failed check in a source file: an assertion, a precondition, a fatal
/// error, or an implicitly unwrapped optional that was nil.
///
/// Search, over the report's lines in order: first the condition form
/// "^.*/<file>.swift:<line>: <kind>", counted only when the kind text, lower-cased, is exactly
/// "assertion failed", "precondition failed" or "fatal error"; only when no line gives one, the
/// unwrap form ".*/<file>.swift:<line>: .* nil while unwrapping".
class MIRELS_EXPORT ConditionInFileError final : public CrashReportError {
  public:
    enum class Kind : std::uint8_t {
        assert,
        precondition,
        fatalError,
        implicitlyUnwrappedOptional
    };

    ConditionInFileError(const CrashReport& crashReport, Kind kind, std::string file,
                         std::optional<std::int64_t> line);

    static std::optional<ConditionInFileError> fromCrashReport(const CrashReport& crashReport);

    /// The compiled condition and unwrap patterns, or null when they failed to compile.
    static const Regex* conditionRegex();
    static const Regex* unwrapRegex();

    const std::string& processName() const noexcept { return processName_; }
    Kind kind() const noexcept { return kind_; }
    /// The file name with its ".swift" ending, without directories.
    const std::string& file() const noexcept { return file_; }
    /// The line number; absent when the digits do not make a number.
    std::optional<std::int64_t> line() const noexcept { return line_; }

    /// "Assert in ", "Precondition in ", "`fatalError` in " or "Implicitly unwrapped nil value in
    /// ", then the file.
    std::optional<std::string> highValueTitle() const override;
    /// "<P> crashed due to <kind word> in <file>[ at line <line>]."
    std::optional<std::string> additionalInfo() const override;

    /// "assert", "precondition", "fatalError" or "implicitly unwrapped optional".
    static std::string_view kindWord(Kind kind) noexcept;

  private:
    std::string processName_;
    Kind kind_;
    std::string file_;
    std::optional<std::int64_t> line_;
};

}  // namespace mirels
