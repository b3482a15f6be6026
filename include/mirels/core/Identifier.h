#pragma once

// `Identifier`: a process-unique identifier. Also `nextProcessIdentifier()`.

#include <cstdint>
#include <functional>
#include <ostream>

#include "mirels/Export.h"

namespace mirels {

/// Takes the next value of the process-wide identifier counter: one signed 64-bit counter that
/// starts at a random value from 0 to 9,999 and advances by one per use, under its own lock. It
/// numbers queue lanes, serial-queue operations and subscribers, so these never collide within a
/// process.
MIRELS_EXPORT std::int64_t nextProcessIdentifier();

/// A process-unique identifier. Made with no arguments it takes the next value of the
/// process-wide counter; made from a number it is that number.
struct Identifier {
    std::int64_t identifier;

    Identifier() : identifier(nextProcessIdentifier()) {}
    explicit constexpr Identifier(std::int64_t value) noexcept : identifier(value) {}

    friend constexpr bool operator==(Identifier, Identifier) noexcept = default;
    friend constexpr auto operator<=>(Identifier, Identifier) noexcept = default;
};

/// Streams the number.
inline std::ostream& operator<<(std::ostream& stream, Identifier identifier) {
    return stream << identifier.identifier;
}

}  // namespace mirels

template <>
struct std::hash<mirels::Identifier> {
    std::size_t operator()(mirels::Identifier id) const noexcept {
        return std::hash<std::int64_t>{}(id.identifier);
    }
};
