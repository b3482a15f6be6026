#pragma once

// `UncaughtExceptionError`: a process was terminated by an exception nobody caught.

#include <string>

#include "mirels/Export.h"
#include "mirels/crash/CrashReportError.h"

namespace mirels {

/// A process was terminated by an exception nobody caught. Recognised by "due to uncaught
/// exception '<exception>', reason: '<reason>'" (both non-empty).
class MIRELS_EXPORT UncaughtExceptionError final
    : public SingleRegexCrashReportError<UncaughtExceptionError> {
  public:
    UncaughtExceptionError(const CrashReport& crashReport, std::string_view line,
                           const RegexMatch& match);

    /// The compiled pattern, or null when it failed to compile.
    static const Regex* regex();

    const std::string& processName() const noexcept { return processName_; }
    const std::string& exception() const noexcept { return exception_; }
    const std::string& reason() const noexcept { return reason_; }

    /// "<P> crashed due to an uncaught exception".
    std::optional<std::string> highValueTitle() const override;
    /// "<P> crashed due to an uncaught exception `<exception>`. Reason: <reason>."
    std::optional<std::string> additionalInfo() const override;

  private:
    std::string processName_;
    std::string exception_;
    std::string reason_;
};

}  // namespace mirels
