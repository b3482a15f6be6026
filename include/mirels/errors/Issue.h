#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "mirels/Export.h"
#include "mirels/core/Callsite.h"
#include "mirels/errors/Error.h"

namespace mirels {

class HumanReadableError;

/// One diagnostic record: how severe it is, what happened, the error that explains it (when
/// there is one), where it was reported and when. A value type; copies share the error.
///
/// Any error value can explain an issue: it is kept in its human-readable form (`humanReadable`),
/// so that a summary can print its full diagnostics.
class MIRELS_EXPORT Issue {
  public:
    /// Most severe first; the diagnostics summary groups issues in this order.
    enum class Severity : std::uint8_t { error, warning, note };
    using Clock = std::chrono::system_clock;

    /// An issue without an error, stamped with the current time.
    Issue(Severity severity, std::string message, Callsite callsite = Callsite::current());
    /// An issue explained by `error`, stamped with the current time.
    Issue(Severity severity, std::string message, const Error& error,
          Callsite callsite = Callsite::current());

    Severity severity() const noexcept { return severity_; }
    const std::string& message() const noexcept { return message_; }
    /// The explaining error, or null.
    const std::shared_ptr<const HumanReadableError>& error() const noexcept { return error_; }
    const Callsite& callsite() const noexcept { return callsite_; }
    Clock::time_point time() const noexcept { return time_; }

    /// This issue with another time stamp (for records replayed from elsewhere, and for tests).
    [[nodiscard]] Issue withTime(Clock::time_point time) const;

    /// "error", "warning" or "note".
    static std::string_view severityName(Severity severity) noexcept;

    /// "warning: message (File.cpp:12:5 within f)".
    std::string description() const;

  private:
    Severity severity_;
    std::string message_;
    std::shared_ptr<const HumanReadableError> error_;
    Callsite callsite_;
    Clock::time_point time_;
};

}  // namespace mirels
