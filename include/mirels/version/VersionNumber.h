#pragma once

// `VersionNumber`: a dotted major.minor.update version, such as "6.1" or "6.1.12". Also
// `OperatingSystemVersion`.

#include <compare>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

#include "mirels/Export.h"

namespace mirels {

/// The operating system's version as the platform reports it: three numbers.
struct OperatingSystemVersion {
    std::int64_t majorVersion = 0;
    std::int64_t minorVersion = 0;
    std::int64_t patchVersion = 0;
};

/// A dotted major.minor.update version, such as "6.1" or "6.1.12".
///
/// A value type: equatable, hashable, and ordered by major, then minor, then update. Its text
/// leaves the update out when it is zero, so 6.1.0 reads "6.1".
class MIRELS_EXPORT VersionNumber {
  public:
    constexpr VersionNumber(std::int64_t major, std::int64_t minor,
                            std::int64_t update = 0) noexcept
        : major_(major), minor_(minor), update_(update) {}

    /// From the platform's version triple.
    constexpr explicit VersionNumber(const OperatingSystemVersion& version) noexcept
        : VersionNumber(version.majorVersion, version.minorVersion, version.patchVersion) {}

    /// Reads "major", "major.minor" or "major.minor.update": one to three parts separated by
    /// ".", each one or more ASCII digits that fit 64 bits; missing parts are 0, so "1.2" is
    /// 1.2.0. Anything else gives nothing: an empty part ("1..2", "1."), a sign (a negative
    /// part), blanks, letters ("1.2b"), a fourth part, or a number too large.
    static std::optional<VersionNumber> fromString(std::string_view text) noexcept;

    /// The version at the start of a kernel release text: its leading run of digits and dots,
    /// read as `fromString` reads it ("6.1.0-18-amd64" is 6.1.0). Nothing when that prefix is
    /// not a version.
    static std::optional<VersionNumber> fromKernelRelease(std::string_view release) noexcept;

    /// The running system's version: the release of the running kernel (uname), read once per
    /// process; 0.0 when it cannot be read. Thread-safe.
    static const VersionNumber& current();

    constexpr std::int64_t major() const noexcept { return major_; }
    constexpr std::int64_t minor() const noexcept { return minor_; }
    constexpr std::int64_t update() const noexcept { return update_; }

    /// "major.minor", then ".update" when the update is not zero.
    std::string description() const;

    friend constexpr bool operator==(const VersionNumber&, const VersionNumber&) noexcept = default;
    friend constexpr std::strong_ordering operator<=>(const VersionNumber&,
                                                      const VersionNumber&) noexcept = default;

  private:
    std::int64_t major_;
    std::int64_t minor_;
    std::int64_t update_;
};

/// Writes the version's description.
MIRELS_EXPORT std::ostream& operator<<(std::ostream& stream, const VersionNumber& version);

}  // namespace mirels

template <>
struct std::hash<mirels::VersionNumber> {
    std::size_t operator()(const mirels::VersionNumber& version) const noexcept {
        std::uint64_t h = static_cast<std::uint64_t>(version.major());
        h = h * 0x9E3779B97F4A7C15ULL ^ static_cast<std::uint64_t>(version.minor());
        h = h * 0x9E3779B97F4A7C15ULL ^ static_cast<std::uint64_t>(version.update());
        return std::hash<std::uint64_t>{}(h ^ (h >> 29));
    }
};
