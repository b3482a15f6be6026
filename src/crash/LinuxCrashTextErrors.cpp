#include "mirels/crash/LinuxCrashTextErrors.h"

namespace mirels {

namespace {

std::string lastPathComponent(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

// --- SharedLibraryLoadError ---

SharedLibraryLoadError::SharedLibraryLoadError(const CrashReport& crashReport,
                                               std::string_view /*line*/, const RegexMatch& match)
    : SingleRegexCrashReportError(crashReport),
      processName_(crashReport.name()),
      library_(groupText(match, "library")) {}

const Regex* SharedLibraryLoadError::regex() {
    static const std::unique_ptr<const Regex> compiled = detail::compileCrashTextPattern(
        R"(error while loading shared libraries: (?<library>[^:]+): cannot open shared object file)",
        Regex::none, Callsite::library("SharedLibraryLoadError"));
    return compiled.get();
}

std::optional<std::string> SharedLibraryLoadError::highValueTitle() const {
    return processName_ + " crashed because " + library_ + " is missing";
}

std::optional<std::string> SharedLibraryLoadError::additionalInfo() const {
    return processName_ + " could not start: the dynamic loader found no " + library_ +
           " on the library search path.";
}

// --- AssertionFailureError ---

AssertionFailureError::AssertionFailureError(const CrashReport& crashReport,
                                             std::string_view /*line*/, const RegexMatch& match)
    : SingleRegexCrashReportError(crashReport),
      processName_(crashReport.name()),
      file_(groupText(match, "file")),
      line_(detail::crashTextLineNumber(match.group("line"))),
      condition_(groupText(match, "condition")) {
    if (auto function = match.group("function")) function_ = std::string(*function);
}

const Regex* AssertionFailureError::regex() {
    // "<program>: <file>:<line>: <function>: Assertion `<expression>' failed." The program and
    // the function are left out by some builds of the C library.
    static const std::unique_ptr<const Regex> compiled = detail::compileCrashTextPattern(
        R"((?:^|: )(?<file>[^:\s][^:]*):(?<line>\d+): (?:(?<function>.+?): )?Assertion `(?<condition>.*)' failed\.)",
        Regex::none, Callsite::library("AssertionFailureError"));
    return compiled.get();
}

std::optional<std::string> AssertionFailureError::highValueTitle() const {
    return "Assertion failed in " + lastPathComponent(file_);
}

std::optional<std::string> AssertionFailureError::additionalInfo() const {
    std::string text = processName_ + " crashed due to the failed assertion `" + condition_ + "`";
    if (function_) text += " in " + *function_;
    text += " at " + file_;
    if (line_) text += ":" + std::to_string(*line_);
    text += ".";
    return text;
}

// --- UncaughtCppExceptionError ---

UncaughtCppExceptionError::UncaughtCppExceptionError(const CrashReport& crashReport,
                                                     std::string exceptionType,
                                                     std::optional<std::string> what)
    : CrashReportError(crashReport),
      processName_(crashReport.name()),
      exceptionType_(std::move(exceptionType)),
      what_(std::move(what)) {}

const Regex* UncaughtCppExceptionError::regex() {
    static const std::unique_ptr<const Regex> compiled = detail::compileCrashTextPattern(
        R"(terminate called after throwing an instance of '(?<type>[^'\n]+)'(?:\n\s*what\(\): {1,2}(?<what>[^\n]*))?)",
        Regex::none, Callsite::library("UncaughtCppExceptionError"));
    return compiled.get();
}

const Regex* UncaughtCppExceptionError::whatRegex() {
    static const std::unique_ptr<const Regex> compiled =
        detail::compileCrashTextPattern(R"(^\s*what\(\): {1,2}(?<what>.*))", Regex::none,
                                        Callsite::library("UncaughtCppExceptionError"));
    return compiled.get();
}

std::optional<UncaughtCppExceptionError> UncaughtCppExceptionError::fromCrashReport(
    const CrashReport& report) {
    const Regex* terminate = regex();
    if (terminate == nullptr || !report.asi()) return std::nullopt;
    for (const auto& entry : *report.asi()) {
        const std::vector<std::string>& lines = entry.second;
        for (std::size_t i = 0; i < lines.size(); ++i) {
            const std::optional<RegexMatch> match = terminate->firstMatch(lines[i]);
            if (!match) continue;
            std::optional<std::string> what;
            if (auto inLine = match->group("what")) {
                what = std::string(*inLine);
            } else if (i + 1 < lines.size() && whatRegex() != nullptr) {
                // The runtime prints what() on the line after the type.
                if (auto next = whatRegex()->firstMatch(lines[i + 1])) {
                    what = std::string(next->group("what").value_or(std::string_view()));
                }
            }
            return UncaughtCppExceptionError(report, std::string(*match->group("type")),
                                             std::move(what));
        }
    }
    return std::nullopt;
}

std::optional<std::string> UncaughtCppExceptionError::highValueTitle() const {
    return processName_ + " crashed due to an uncaught C++ exception";
}

std::optional<std::string> UncaughtCppExceptionError::additionalInfo() const {
    std::string text =
        processName_ + " crashed due to an uncaught exception `" + exceptionType_ + "`";
    if (what_) text += ". Reason: " + *what_;
    text += ".";
    return text;
}

// --- StackSmashingError ---

StackSmashingError::StackSmashingError(const CrashReport& crashReport, std::string_view /*line*/,
                                       const RegexMatch& /*match*/)
    : SingleRegexCrashReportError(crashReport), processName_(crashReport.name()) {}

const Regex* StackSmashingError::regex() {
    static const std::unique_ptr<const Regex> compiled =
        detail::compileCrashTextPattern(R"(\*\*\* stack smashing detected \*\*\*)", Regex::none,
                                        Callsite::library("StackSmashingError"));
    return compiled.get();
}

std::optional<std::string> StackSmashingError::highValueTitle() const {
    return processName_ + " crashed due to a stack buffer overflow";
}

std::optional<std::string> StackSmashingError::additionalInfo() const {
    return processName_ +
           " was stopped because it wrote past the end of a buffer on the stack (stack smashing "
           "detected).";
}

// --- HeapCorruptionError ---

HeapCorruptionError::HeapCorruptionError(const CrashReport& crashReport, std::string_view /*line*/,
                                         const RegexMatch& match)
    : SingleRegexCrashReportError(crashReport),
      processName_(crashReport.name()),
      message_(groupText(match, "message")) {}

const Regex* HeapCorruptionError::regex() {
    static const std::unique_ptr<const Regex> compiled = detail::compileCrashTextPattern(
        R"((?<message>(?:free|malloc|realloc|calloc|munmap_chunk|malloc_consolidate|_int_free|_int_malloc|_int_realloc|tcache_thread_shutdown)\(\): [^\n]+|double free or corruption \([^)\n]*\)|corrupted size vs\. prev_size[^\n]*|corrupted double-linked list[^\n]*))",
        Regex::none, Callsite::library("HeapCorruptionError"));
    return compiled.get();
}

std::optional<std::string> HeapCorruptionError::highValueTitle() const {
    return processName_ + " crashed due to heap corruption";
}

std::optional<std::string> HeapCorruptionError::additionalInfo() const {
    return processName_ + " was stopped by the C library's heap check \"" + message_ +
           "\": memory was freed twice, written past the end of a block, or used after it was "
           "freed.";
}

// --- the set ---

std::shared_ptr<const CrashReportError> linuxCrashTextError(const CrashReport& report) {
    if (auto error = detail::attemptCrashReportError<SharedLibraryLoadError>(report)) return error;
    if (auto error = detail::attemptCrashReportError<AssertionFailureError>(report)) return error;
    if (auto error = detail::attemptCrashReportError<UncaughtCppExceptionError>(report))
        return error;
    if (auto error = detail::attemptCrashReportError<StackSmashingError>(report)) return error;
    if (auto error = detail::attemptCrashReportError<HeapCorruptionError>(report)) return error;
    return nullptr;
}

}  // namespace mirels
