#pragma once

// `TimePeriod`: a duration in whole nanoseconds, with floating views for display and arithmetic.
// Also `MonotonicTimestamp`.

#include <chrono>
#include <compare>
#include <cstdint>
#include <ostream>

#include "mirels/Export.h"

namespace mirels {

/// A duration in whole nanoseconds, with floating views for display and arithmetic.
struct TimePeriod {
    std::int64_t nanosecondCount = 0;

    static constexpr TimePeriod fromNanoseconds(std::int64_t ns) noexcept { return {ns}; }
    template <class Rep, class Period>
    static constexpr TimePeriod from(std::chrono::duration<Rep, Period> d) noexcept {
        return {std::chrono::duration_cast<std::chrono::nanoseconds>(d).count()};
    }

    constexpr double nanoseconds() const noexcept { return static_cast<double>(nanosecondCount); }
    constexpr double milliseconds() const noexcept { return nanoseconds() / 1e6; }
    constexpr double seconds() const noexcept { return nanoseconds() / 1e9; }
    constexpr std::chrono::nanoseconds duration() const noexcept {
        return std::chrono::nanoseconds(nanosecondCount);
    }

    friend constexpr bool operator==(TimePeriod, TimePeriod) noexcept = default;
    friend constexpr auto operator<=>(TimePeriod, TimePeriod) noexcept = default;
};

/// Streams the period in seconds with an "s" suffix, such as "0.25s".
inline std::ostream& operator<<(std::ostream& stream, TimePeriod period) {
    return stream << period.seconds() << 's';
}

/// A reading of the monotonic clock (CLOCK_MONOTONIC) in unsigned 64-bit nanosecond ticks.
struct MIRELS_EXPORT MonotonicTimestamp {
    std::uint64_t ticks = 0;

    static MonotonicTimestamp now() noexcept;

    /// The time from `earlier` to this reading.
    constexpr TimePeriod operator-(MonotonicTimestamp earlier) const noexcept {
        return {static_cast<std::int64_t>(ticks - earlier.ticks)};
    }

    friend constexpr bool operator==(MonotonicTimestamp, MonotonicTimestamp) noexcept = default;
    friend constexpr auto operator<=>(MonotonicTimestamp, MonotonicTimestamp) noexcept = default;
};

}  // namespace mirels
