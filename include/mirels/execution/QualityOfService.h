#pragma once

// `QualityOfService`: how urgent the work of a queue is. Also `name()`.

#include <cstdint>
#include <ostream>

#include "mirels/Export.h"

namespace mirels {

/// How urgent the work of a queue is. The class selects the worker pool that runs the queue:
/// `userInteractive`, `userInitiated` and `standard` share the high pool, `utility` and
/// `background` share the low pool, so that a flood of background work never holds up work a
/// person is waiting for.
enum class QualityOfService : std::uint8_t {
    /// Work the user is watching happen right now (an animation frame, a key press).
    userInteractive,
    /// Work the user asked for and waits on.
    userInitiated,
    /// The class used when nothing more specific is known (the platform's "default" class,
    /// renamed because `default` is a C++ keyword).
    standard,
    /// Long-running work whose progress the user may follow.
    utility,
    /// Maintenance the user does not see: time-out timers, cleanup, prefetching.
    background,
};

/// The lower-camel-case name of the class, such as "userInitiated" or "standard".
MIRELS_EXPORT const char* name(QualityOfService qos) noexcept;

/// Streams `name(qos)`.
inline std::ostream& operator<<(std::ostream& stream, QualityOfService qos) {
    return stream << name(qos);
}

}  // namespace mirels
