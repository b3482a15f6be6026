#include "mirels/futures/TimeoutError.h"

#include <locale.h>
#include <stdlib.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <mutex>

#include "mirels/futures/TimeoutFuture.h"

namespace mirels {

std::string TimeoutError::intervalText(double interval) {
    char buffer[64];
    auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, interval);
    std::string text(buffer, error == std::errc() ? end : buffer);
    // The shortest text of a whole number has no point; the title writes it "5.0".
    if (std::isfinite(interval) && text.find_first_of(".e") == std::string::npos) text += ".0";
    return text;
}

TimeoutError::TimeoutError(double interval, std::optional<std::string> description)
    : interval_(interval), description_(std::move(description)) {
    if (description_) {
        title_ = "Timed out waiting for " + *description_ + " after " + intervalText(interval) +
                 " seconds.";
    } else {
        title_ = "Timed out after " + intervalText(interval) + " seconds.";
    }
}

TimeoutError TimeoutError::timedOut(double interval) {
    return TimeoutError(interval, std::nullopt);
}

TimeoutError TimeoutError::timedOutSpecific(double interval, std::string description) {
    return TimeoutError(interval, std::move(description));
}

UniqueFunction<Error(double)> TimeoutError::timedOut(std::string waitingFor) {
    return [waitingFor = std::move(waitingFor)](double interval) {
        return Error(timedOutSpecific(interval, waitingFor));
    };
}

namespace {

/// The whole of `text` as a number in the "C" locale's notation, or nothing: an empty text,
/// leading white space or anything after the number make it fail.
std::optional<double> parseWholeNumber(const char* text) {
    if (*text == '\0' || std::strchr(" \t\n\v\f\r", *text) != nullptr) return std::nullopt;
    static locale_t cLocale = newlocale(LC_ALL_MASK, "C", nullptr);
    char* end = nullptr;
    const double value = cLocale != nullptr ? strtod_l(text, &end, cLocale) : strtod(text, &end);
    if (end == text || *end != '\0') return std::nullopt;
    return value;
}

}  // namespace

double effectiveTimeout(double timeout) {
    static const std::optional<double> override = [] {
        // Read once; the library never changes the environment.
        const char* text = getenv("QK_TIMEOUT");  // NOLINT(concurrency-mt-unsafe)
        return text != nullptr ? parseWholeNumber(text) : std::nullopt;
    }();
    return override.value_or(timeout);
}

namespace detail {

TimePeriod secondsPeriod(double seconds) {
    if (!(seconds > 0)) return TimePeriod{};
    if (seconds >= 9.2e9) return TimePeriod::fromNanoseconds(INT64_MAX);
    return TimePeriod::fromNanoseconds(static_cast<std::int64_t>(std::llround(seconds * 1e9)));
}

}  // namespace detail

}  // namespace mirels
