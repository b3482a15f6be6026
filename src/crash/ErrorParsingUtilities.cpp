#include "mirels/crash/ErrorParsingUtilities.h"

#include "mirels/crash/CrashReportError.h"

namespace mirels {

namespace {

std::optional<std::string> firstGroup(const Regex* regex, std::string_view text) {
    if (regex == nullptr) return std::nullopt;
    const std::optional<RegexMatch> match = regex->firstMatch(text);
    if (!match) return std::nullopt;
    const std::optional<std::string_view> group = match->group(std::size_t{1});
    if (!group) return std::nullopt;
    return std::string(*group);
}

}  // namespace

std::optional<std::string> firstFileBuildErrorMessage(std::string_view buildOutput) {
    static const std::unique_ptr<const Regex> regex = detail::compileCrashTextPattern(
        R"(\: error\: (.*)$)", Regex::multiline, Callsite::library("firstFileBuildErrorMessage"));
    return firstGroup(regex.get(), buildOutput);
}

std::optional<std::string> firstBuildErrorMessage(std::string_view buildOutput) {
    static const std::unique_ptr<const Regex> regex = detail::compileCrashTextPattern(
        R"(error\: (.*)$)", Regex::multiline, Callsite::library("firstBuildErrorMessage"));
    return firstGroup(regex.get(), buildOutput);
}

}  // namespace mirels
