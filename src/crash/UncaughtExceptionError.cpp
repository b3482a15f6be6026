#include "mirels/crash/UncaughtExceptionError.h"

namespace mirels {

UncaughtExceptionError::UncaughtExceptionError(const CrashReport& crashReport,
                                               std::string_view /*line*/, const RegexMatch& match)
    : SingleRegexCrashReportError(crashReport),
      processName_(crashReport.name()),
      exception_(groupText(match, "exception")),
      reason_(groupText(match, "reason")) {}

const Regex* UncaughtExceptionError::regex() {
    static const std::unique_ptr<const Regex> compiled = detail::compileCrashTextPattern(
        R"(due to uncaught exception '(?<exception>.+)', reason: '(?<reason>.+)')", Regex::none,
        Callsite::library("UncaughtExceptionError"));
    return compiled.get();
}

std::optional<std::string> UncaughtExceptionError::highValueTitle() const {
    return processName_ + " crashed due to an uncaught exception";
}

std::optional<std::string> UncaughtExceptionError::additionalInfo() const {
    return processName_ + " crashed due to an uncaught exception `" + exception_ +
           "`. Reason: " + reason_ + ".";
}

}  // namespace mirels
