#pragma once

#include "mirels/Export.h"

// Crash-text parsers for the texts that Linux programs leave behind when they die: the C
// library's assertion and heap-check messages, the C++ runtime's terminate message, the dynamic
// loader's missing-library message and the stack protector's message.
//
// These are a separate set: `CrashReport::effectiveError()` tries only its fixed parsers and
// falls back to `CrashError`; a caller on Linux then tries `linuxCrashTextError(report)`, which
// asks these in the order below and gives the first that recognises a line (null when none does):
//   SharedLibraryLoadError, AssertionFailureError, UncaughtCppExceptionError, StackSmashingError,
//   HeapCorruptionError.
// Each searches the report's application-specific lines in order, like the fixed parsers, and has
// the same defaults (structured description as diagnostics, the crash-logs button, not a
// potential crash).

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "mirels/crash/CrashReportError.h"

namespace mirels {

/// "prog: error while loading shared libraries: libfoo.so.1: cannot open shared object file: No
/// such file or directory": the dynamic loader refused to start the program.
class MIRELS_EXPORT SharedLibraryLoadError final
    : public SingleRegexCrashReportError<SharedLibraryLoadError> {
  public:
    SharedLibraryLoadError(const CrashReport& crashReport, std::string_view line,
                           const RegexMatch& match);
    static const Regex* regex();

    const std::string& processName() const noexcept { return processName_; }
    /// The library as the loader names it ("libfoo.so.1").
    const std::string& library() const noexcept { return library_; }

    /// "<P> crashed because <library> is missing".
    std::optional<std::string> highValueTitle() const override;
    /// "<P> could not start: the dynamic loader found no <library> on the library search path."
    std::optional<std::string> additionalInfo() const override;

  private:
    std::string processName_;
    std::string library_;
};

/// "prog: file.c:42: main: Assertion `x == 1' failed.": a failed `assert` of the C library.
class MIRELS_EXPORT AssertionFailureError final
    : public SingleRegexCrashReportError<AssertionFailureError> {
  public:
    AssertionFailureError(const CrashReport& crashReport, std::string_view line,
                          const RegexMatch& match);
    static const Regex* regex();

    const std::string& processName() const noexcept { return processName_; }
    /// The source file as the program was compiled (possibly with directories).
    const std::string& file() const noexcept { return file_; }
    std::optional<std::int64_t> line() const noexcept { return line_; }
    /// The function, when the message names one.
    const std::optional<std::string>& function() const noexcept { return function_; }
    /// The asserted expression.
    const std::string& condition() const noexcept { return condition_; }

    /// "Assertion failed in <file name>" (the last path component).
    std::optional<std::string> highValueTitle() const override;
    /// "<P> crashed due to the failed assertion `<condition>` in <function> at <file>:<line>."
    /// (" in <function>" only when known).
    std::optional<std::string> additionalInfo() const override;

  private:
    std::string processName_;
    std::string file_;
    std::optional<std::int64_t> line_;
    std::optional<std::string> function_;
    std::string condition_;
};

/// "terminate called after throwing an instance of 'std::runtime_error'" and, on the same line
/// after a line feed or on the next line, "  what():  message".
class MIRELS_EXPORT UncaughtCppExceptionError final : public CrashReportError {
  public:
    UncaughtCppExceptionError(const CrashReport& crashReport, std::string exceptionType,
                              std::optional<std::string> what);
    static std::optional<UncaughtCppExceptionError> fromCrashReport(const CrashReport& report);
    static const Regex* regex();
    static const Regex* whatRegex();

    const std::string& processName() const noexcept { return processName_; }
    /// The exception's type as the runtime prints it ("std::runtime_error").
    const std::string& exceptionType() const noexcept { return exceptionType_; }
    /// The exception's `what()`, when printed.
    const std::optional<std::string>& whatMessage() const noexcept { return what_; }

    /// "<P> crashed due to an uncaught C++ exception".
    std::optional<std::string> highValueTitle() const override;
    /// "<P> crashed due to an uncaught exception `<type>`. Reason: <what>." (". Reason: ..." only
    /// when the message was printed).
    std::optional<std::string> additionalInfo() const override;

  private:
    std::string processName_;
    std::string exceptionType_;
    std::optional<std::string> what_;
};

/// "*** stack smashing detected ***: terminated": the stack protector found a function's
/// stack guard overwritten.
class MIRELS_EXPORT StackSmashingError final
    : public SingleRegexCrashReportError<StackSmashingError> {
  public:
    StackSmashingError(const CrashReport& crashReport, std::string_view line,
                       const RegexMatch& match);
    static const Regex* regex();

    const std::string& processName() const noexcept { return processName_; }

    /// "<P> crashed due to a stack buffer overflow".
    std::optional<std::string> highValueTitle() const override;
    /// "<P> was stopped because it wrote past the end of a buffer on the stack (stack smashing
    /// detected)."
    std::optional<std::string> additionalInfo() const override;

  private:
    std::string processName_;
};

/// A heap-consistency message of the C library's allocator, such as "free(): double free
/// detected in tcache 2", "double free or corruption (out)", "malloc(): corrupted top size" or
/// "munmap_chunk(): invalid pointer".
class MIRELS_EXPORT HeapCorruptionError final
    : public SingleRegexCrashReportError<HeapCorruptionError> {
  public:
    HeapCorruptionError(const CrashReport& crashReport, std::string_view line,
                        const RegexMatch& match);
    static const Regex* regex();

    const std::string& processName() const noexcept { return processName_; }
    /// The allocator's message.
    const std::string& message() const noexcept { return message_; }

    /// "<P> crashed due to heap corruption".
    std::optional<std::string> highValueTitle() const override;
    /// "<P> was stopped by the C library's heap check \"<message>\": memory was freed twice,
    /// written past the end of a block, or used after it was freed."
    std::optional<std::string> additionalInfo() const override;

  private:
    std::string processName_;
    std::string message_;
};

/// The first parser of the Linux set that recognises `report`, or null.
MIRELS_EXPORT std::shared_ptr<const CrashReportError> linuxCrashTextError(
    const CrashReport& report);

}  // namespace mirels
