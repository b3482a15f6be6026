#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "mirels/Export.h"
#include "mirels/errors/HumanReadableError.h"

namespace mirels {

/// The diagnostics summary could not be written: its folder could not be made, or the file in it
/// could not be written or put in place.
class MIRELS_EXPORT DiagnosticsSummaryError final : public HumanReadableError {
  public:
    /// `action` says what failed ("Could not create the folder"), `reason` the system's words.
    DiagnosticsSummaryError(std::string action, std::filesystem::path path, std::string reason);

    const std::filesystem::path& path() const noexcept { return path_; }
    const std::string& reason() const noexcept { return reason_; }

    /// "Unable to write the diagnostics summary".
    std::optional<std::string> highValueTitle() const override;
    /// "«action» «path»: «reason»", e.g. `Could not create the folder "/x/mirels-diagnostics":
    /// Permission denied`.
    std::optional<std::string> additionalInfo() const override;
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }

  private:
    std::string action_;
    std::filesystem::path path_;
    std::string reason_;
};

}  // namespace mirels
