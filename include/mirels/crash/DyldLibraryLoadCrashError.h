#pragma once

// `DyldLibraryLoadCrashError`: a process could not start because the dynamic loader did not find a
// library it links.

#include <string>

#include "mirels/Export.h"
#include "mirels/crash/CrashReportError.h"

namespace mirels {

/// A process could not start because the dynamic loader did not find a library it links. The
/// library's name is what follows "Library not loaded: @rpath/", up to the next "/".
class MIRELS_EXPORT DyldLibraryLoadCrashError final
    : public SingleRegexCrashReportError<DyldLibraryLoadCrashError> {
  public:
    DyldLibraryLoadCrashError(const CrashReport& crashReport, std::string_view line,
                              const RegexMatch& match);

    /// The compiled pattern, or null when it failed to compile.
    static const Regex* regex();

    const std::string& processName() const noexcept { return processName_; }
    const std::string& library() const noexcept { return library_; }

    /// "<P> crashed because <library> is missing".
    std::optional<std::string> highValueTitle() const override;
    /// None.
    std::optional<std::string> additionalInfo() const override { return std::nullopt; }

  private:
    std::string processName_;
    std::string library_;
};

}  // namespace mirels
