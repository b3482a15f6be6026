#include "mirels/core/TimePeriod.h"

#include <time.h>

namespace mirels {

MonotonicTimestamp MonotonicTimestamp::now() noexcept {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return {static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000'000ULL +
            static_cast<std::uint64_t>(ts.tv_nsec)};
}

}  // namespace mirels
