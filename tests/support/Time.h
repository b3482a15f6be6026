#pragma once

#include <chrono>
#include <cstdint>

#include "mirels/core/TimePeriod.h"

namespace mirels::testing {

/// A period of `count` milliseconds, short to write in timing tables.
inline TimePeriod ms(std::int64_t count) {
    return TimePeriod::from(std::chrono::milliseconds(count));
}

}  // namespace mirels::testing
