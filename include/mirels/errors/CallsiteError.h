#pragma once

// `CallsiteError`: an error together with the place where it was thrown or passed through.

#include <optional>
#include <string>
#include <utility>

#include "mirels/core/Callsite.h"
#include "mirels/errors/HumanReadableError.h"

namespace mirels {

/// An error together with the place where it was thrown or passed through. Its title is the call
/// site's description, so a trail of these reads as the path an error took.
template <class Underlying>
class CallsiteError final : public HumanReadableError {
  public:
    CallsiteError(Underlying underlying, Callsite callsite)
        : underlying_(std::move(underlying)), callsite_(callsite) {}

    const Underlying& underlying() const noexcept { return underlying_; }
    Callsite callsite() const noexcept { return callsite_; }

    std::optional<std::string> lowValueTitle() const override { return callsite_.description(); }
    std::optional<std::string> additionalInfo() const override { return std::nullopt; }
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }

  private:
    Underlying underlying_;
    Callsite callsite_;
};

}  // namespace mirels
