#pragma once

// `AccumulatedError`: the errors of several failures together, in the order of the elements that
// failed.

#include <optional>
#include <string>
#include <vector>

#include "mirels/Export.h"
#include "mirels/errors/Error.h"
#include "mirels/errors/HumanReadableError.h"

namespace mirels {

/// The errors of several failures together, in the order of the elements that failed: what a
/// traversal that accumulates errors fails with when two or more of its elements failed.
///
/// Its title is the first title that one of its errors supplies, else "multiple errors
/// encountered". Its full diagnostics list every error's own full diagnostics, numbered and
/// indented, separated by a line of equals signs.
class MIRELS_EXPORT AccumulatedError final : public HumanReadableError {
  public:
    explicit AccumulatedError(std::vector<Error> errors) : errors_(std::move(errors)) {}

    const std::vector<Error>& errors() const noexcept { return errors_; }

    /// The first high-value title among the errors.
    std::optional<std::string> highValueTitle() const override;
    /// The first low-value title among the errors, else "multiple errors encountered".
    std::optional<std::string> lowValueTitle() const override;
    std::optional<std::string> additionalInfo() const override { return std::nullopt; }
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }

    /// Empty for no errors; otherwise, for the error at 1-based position n, "Error n:\n" and
    /// that error's full diagnostics with every line indented by three spaces, the errors
    /// separated by "\n\n" + 30 equals signs + "\n\n".
    std::string fullDiagnosticsOutput() const override;

  private:
    std::vector<Error> errors_;
};

}  // namespace mirels
