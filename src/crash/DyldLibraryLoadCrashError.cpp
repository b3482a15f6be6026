#include "mirels/crash/DyldLibraryLoadCrashError.h"

namespace mirels {

DyldLibraryLoadCrashError::DyldLibraryLoadCrashError(const CrashReport& crashReport,
                                                     std::string_view /*line*/,
                                                     const RegexMatch& match)
    : SingleRegexCrashReportError(crashReport),
      processName_(crashReport.name()),
      library_(groupText(match, "library")) {}

const Regex* DyldLibraryLoadCrashError::regex() {
    static const std::unique_ptr<const Regex> compiled = detail::compileCrashTextPattern(
        R"((dyld: launch, loading dependent libraries(.|\n)*)?Library not loaded: @rpath/(?<library>.+?(?=/)))",
        Regex::none, Callsite::library("DyldLibraryLoadCrashError"));
    return compiled.get();
}

std::optional<std::string> DyldLibraryLoadCrashError::highValueTitle() const {
    return processName_ + " crashed because " + library_ + " is missing";
}

}  // namespace mirels
