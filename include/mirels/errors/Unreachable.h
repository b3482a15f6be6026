#pragma once

// `Unreachable`: the error for a branch that cannot happen but must still return an error rather
// than stop.

#include <concepts>
#include <optional>
#include <string>
#include <type_traits>

#include "mirels/Export.h"
#include "mirels/core/Callsite.h"
#include "mirels/errors/HumanReadableError.h"

namespace mirels {

/// The error for a branch that cannot happen but must still return an error rather than stop.
/// Making one reports a soft-assertion failure for the call site at once, whether or not the
/// error is ever thrown; copies do not report again.
class MIRELS_EXPORT Unreachable final : public HumanReadableError {
  public:
    static constexpr const char* title = "A mirels logic error occurred";

    explicit Unreachable(std::string message, Callsite callsite = Callsite::current());

    /// Takes the message lazily: `makeMessage` runs once, here.
    template <class MakeMessage>
        requires std::is_invocable_r_v<std::string, MakeMessage&&>
    explicit Unreachable(MakeMessage&& makeMessage, Callsite callsite = Callsite::current())
        : Unreachable(std::string(std::forward<MakeMessage>(makeMessage)()), callsite) {}

    const std::string& message() const noexcept { return message_; }

    std::optional<std::string> lowValueTitle() const override { return std::string(title); }
    std::optional<std::string> additionalInfo() const override { return message_; }
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }

  private:
    std::string message_;
};

}  // namespace mirels
