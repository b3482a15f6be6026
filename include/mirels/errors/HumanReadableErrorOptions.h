#pragma once

// `HumanReadableErrorOptions`: presentation flags of a human-readable error.

#include <cstdint>

#include "mirels/Export.h"

namespace mirels {

/// Presentation flags of a human-readable error. The bit values cross process boundaries as
/// integers, so they never change; bit 1 is deliberately unassigned.
struct MIRELS_EXPORT HumanReadableErrorOptions {
    std::intptr_t rawValue = 0;

    static const HumanReadableErrorOptions showCrashLogsButton;
    static const HumanReadableErrorOptions showTitleOnly;
    static const HumanReadableErrorOptions generatesLiveIssues;

    constexpr bool isEmpty() const noexcept { return rawValue == 0; }
    constexpr bool contains(HumanReadableErrorOptions other) const noexcept {
        return (rawValue & other.rawValue) == other.rawValue;
    }
    constexpr void insert(HumanReadableErrorOptions other) noexcept { rawValue |= other.rawValue; }
    constexpr void remove(HumanReadableErrorOptions other) noexcept { rawValue &= ~other.rawValue; }

    friend constexpr HumanReadableErrorOptions operator|(HumanReadableErrorOptions a,
                                                         HumanReadableErrorOptions b) noexcept {
        return {a.rawValue | b.rawValue};
    }
    friend constexpr HumanReadableErrorOptions operator&(HumanReadableErrorOptions a,
                                                         HumanReadableErrorOptions b) noexcept {
        return {a.rawValue & b.rawValue};
    }
    friend constexpr bool operator==(HumanReadableErrorOptions,
                                     HumanReadableErrorOptions) noexcept = default;
};

inline constexpr HumanReadableErrorOptions HumanReadableErrorOptions::showCrashLogsButton{2};
inline constexpr HumanReadableErrorOptions HumanReadableErrorOptions::showTitleOnly{4};
inline constexpr HumanReadableErrorOptions HumanReadableErrorOptions::generatesLiveIssues{8};

}  // namespace mirels
