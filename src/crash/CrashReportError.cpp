#include "mirels/crash/CrashReportError.h"

#include <charconv>

#include "mirels/core/Assertions.h"
#include "mirels/platform/Log.h"

namespace mirels {

std::optional<std::string> CrashReportError::additionalDiagnostics() const {
    return crashReport_.structuredDescription();
}

std::optional<HumanReadableErrorOptions> CrashReportError::options() const {
    return HumanReadableErrorOptions::showCrashLogsButton;
}

namespace detail {

std::optional<std::int64_t> crashTextLineNumber(std::optional<std::string_view> digits) {
    if (!digits) return std::nullopt;
    std::int64_t value = 0;
    const auto [end, error] =
        std::from_chars(digits->data(), digits->data() + digits->size(), value);
    if (error != std::errc() || end != digits->data() + digits->size()) return std::nullopt;
    return value;
}

std::unique_ptr<const Regex> compileCrashTextPattern(std::string_view pattern,
                                                     std::uint32_t options, Callsite reportAs) {
    std::string message;
    std::unique_ptr<const Regex> regex = Regex::compile(pattern, options, &message);
    if (regex == nullptr) {
        static const Logger logger("org.mirels.foundation", "crash");
        logger.fault("The pattern of %{public}@ does not compile: %{public}@",
                     std::string_view(reportAs.function()), message);
        reportSoftAssertionFailure(reportAs);
    }
    return regex;
}

}  // namespace detail

}  // namespace mirels
