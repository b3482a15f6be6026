#pragma once

// `QueueIdentifier`: the tag by which a queue recognises itself.

#include <cstddef>
#include <cstdint>
#include <typeindex>  // declares std::hash, which <functional> would bring with containers

namespace mirels {

/// The tag by which a queue recognises itself: while a worker runs a queue's callbacks, the
/// queue's identifier is the calling thread's current queue identifier. Taken from the
/// process-wide identifier counter, so no two queues of a process share one.
struct QueueIdentifier {
    std::int64_t identifier;

    friend constexpr bool operator==(QueueIdentifier, QueueIdentifier) noexcept = default;
};

}  // namespace mirels

template <>
struct std::hash<mirels::QueueIdentifier> {
    std::size_t operator()(mirels::QueueIdentifier id) const noexcept {
        return static_cast<std::size_t>(id.identifier);
    }
};
