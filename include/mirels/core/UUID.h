#pragma once

// `UUID`: a 128-bit universally unique identifier.

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "mirels/Export.h"

namespace mirels {

/// A 128-bit universally unique identifier. A regular value: copyable, ordered, hashable.
class MIRELS_EXPORT UUID {
  public:
    using Bytes = std::array<std::uint8_t, 16>;

    /// The nil UUID, all zero bits.
    constexpr UUID() noexcept = default;
    constexpr explicit UUID(const Bytes& bytes) noexcept : bytes_(bytes) {}

    /// A new random (version 4) UUID.
    static UUID random();

    /// Parses the canonical text form, 32 hexadecimal digits grouped 8-4-4-4-12 by hyphens, in
    /// either case; anything else gives nothing.
    static std::optional<UUID> fromString(std::string_view text) noexcept;

    constexpr const Bytes& bytes() const noexcept { return bytes_; }

    /// The canonical text form in lower case, e.g. "123e4567-e89b-42d3-a456-426614174000".
    std::string uuidString() const;
    std::string description() const { return uuidString(); }

    friend constexpr auto operator<=>(const UUID&, const UUID&) noexcept = default;

  private:
    Bytes bytes_{};
};

/// Streams the canonical text form (`uuidString()`).
inline std::ostream& operator<<(std::ostream& stream, const UUID& uuid) {
    return stream << uuid.uuidString();
}

}  // namespace mirels

template <>
struct std::hash<mirels::UUID> {
    std::size_t operator()(const mirels::UUID& uuid) const noexcept {
        std::uint64_t high = 0;
        std::uint64_t low = 0;
        for (std::size_t i = 0; i < 8; ++i) {
            high = (high << 8) | uuid.bytes()[i];
            low = (low << 8) | uuid.bytes()[i + 8];
        }
        return std::hash<std::uint64_t>()(high ^ (low * 0x9E3779B97F4A7C15ULL));
    }
};
