#pragma once

// `TimeoutError`: the library's time-out error. Also `effectiveTimeout()`.

#include <optional>
#include <string>

#include "mirels/Export.h"
#include "mirels/core/UniqueFunction.h"
#include "mirels/errors/Error.h"
#include "mirels/errors/HumanReadableError.h"

namespace mirels {

/// The library's time-out error: waiting took longer than an interval, in seconds.
///
/// Two cases: `timedOut` ("Timed out after 5.0 seconds.") and `timedOutSpecific`, which also
/// says what was awaited ("Timed out waiting for the agent after 5.0 seconds."). The interval
/// is written as the shortest decimal text that reads back as the same number, a whole number
/// with a trailing ".0". The title is also the error's description (`what()`).
class MIRELS_EXPORT TimeoutError final : public HumanReadableError {
  public:
    /// Timed out after `interval` seconds.
    [[nodiscard]] static TimeoutError timedOut(double interval);

    /// Timed out waiting for `description` after `interval` seconds.
    [[nodiscard]] static TimeoutError timedOutSpecific(double interval, std::string description);

    /// An error maker for `Future::timeout`: from the interval, `timedOutSpecific(interval,
    /// waitingFor)`.
    [[nodiscard]] static UniqueFunction<Error(double)> timedOut(std::string waitingFor);

    bool isTimedOutSpecific() const noexcept { return description_.has_value(); }
    double interval() const noexcept { return interval_; }
    /// What was awaited, for `timedOutSpecific`.
    const std::optional<std::string>& waitingFor() const noexcept { return description_; }

    std::optional<std::string> highValueTitle() const override { return title_; }
    std::optional<std::string> additionalInfo() const override { return std::nullopt; }
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }
    const char* what() const noexcept override { return title_.c_str(); }

    /// The interval as the title writes it: "5.0", "0.25", "1e+20".
    static std::string intervalText(double interval);

  private:
    TimeoutError(double interval, std::optional<std::string> description);

    double interval_;
    std::optional<std::string> description_;
    std::string title_;
};

/// The time-out to use in place of `timeout`: the value of the environment variable
/// "QK_TIMEOUT" when it is set to a number, for every time-out alike (neither a factor nor a
/// minimum), else `timeout` itself. The variable is read once per process; its whole text must
/// be a number as the "C" locale writes one, with no leading blank.
MIRELS_EXPORT double effectiveTimeout(double timeout);

}  // namespace mirels
