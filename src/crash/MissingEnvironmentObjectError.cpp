#include "mirels/crash/MissingEnvironmentObjectError.h"

namespace mirels {

MissingEnvironmentObjectError::MissingEnvironmentObjectError(const CrashReport& crashReport,
                                                             std::string_view /*line*/,
                                                             const RegexMatch& match)
    : SingleRegexCrashReportError(crashReport),
      processName_(crashReport.name()),
      type_(groupText(match, "type")) {}

const Regex* MissingEnvironmentObjectError::regex() {
    static const std::unique_ptr<const Regex> compiled = detail::compileCrashTextPattern(
        R"(No ObservableObject of type (?<type>\w+) found. A View.environmentObject)", Regex::none,
        Callsite::library("MissingEnvironmentObjectError"));
    return compiled.get();
}

std::optional<std::string> MissingEnvironmentObjectError::highValueTitle() const {
    return "Mirel is missing environment object \"" + type_ + "\"";
}

std::optional<std::string> MissingEnvironmentObjectError::additionalInfo() const {
    return processName_ + " crashed due to missing environment of type: " + type_ +
           ". To resolve this add `.environmentObject(" + type_ +
           "(...))` to the appropriate mirel.";
}

}  // namespace mirels
