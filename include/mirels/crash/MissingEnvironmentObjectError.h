#pragma once

// `MissingEnvironmentObjectError`: a UI view crashed because an environment object it reads was
// never provided.

#include <string>

#include "mirels/Export.h"
#include "mirels/crash/CrashReportError.h"

namespace mirels {

/// A UI view crashed because an environment object it reads was never provided. Recognised by
/// "No ObservableObject of type <type> found. A View.environmentObject".
class MIRELS_EXPORT MissingEnvironmentObjectError final
    : public SingleRegexCrashReportError<MissingEnvironmentObjectError> {
  public:
    MissingEnvironmentObjectError(const CrashReport& crashReport, std::string_view line,
                                  const RegexMatch& match);

    /// The compiled pattern, or null when it failed to compile.
    static const Regex* regex();

    /// The crash report's `name`.
    const std::string& processName() const noexcept { return processName_; }
    /// The type of the missing object.
    const std::string& type() const noexcept { return type_; }

    /// "Mirel is missing environment object \"<type>\"".
    std::optional<std::string> highValueTitle() const override;
    /// "<P> crashed due to missing environment of type: <type>. To resolve this add
    /// `.environmentObject(<type>(...))` to the appropriate mirel."
    std::optional<std::string> additionalInfo() const override;

  private:
    std::string processName_;
    std::string type_;
};

}  // namespace mirels
