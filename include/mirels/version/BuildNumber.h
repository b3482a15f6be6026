#pragma once

// `BuildNumber`: an operating-system build identifier, a short code such as "1A1" or "21C5021a".

#include <compare>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "mirels/Export.h"
#include "mirels/errors/HumanReadableError.h"

namespace mirels {

/// An operating-system build identifier, a short code such as "1A1" or "21C5021a": a release
/// number, a release-train letter, a build number and an optional suffix letter.
///
/// A value type: equatable, hashable and ordered on its normalised parts (the train letter
/// upper-cased, the suffix lower-cased), so "1a1" equals "1A1" and "20A5a" equals "20A5A". The
/// order compares, first difference deciding: the release number, the train letter, the build
/// number, then the suffix, where a build without a suffix comes before the same build with one
/// ("20A5" < "20A5a" < "20A5b").
///
/// Numbers are 64-bit (the machine word of the platforms we build for). Letters are ASCII
/// letters only.
class MIRELS_EXPORT BuildNumber {
  public:
    /// A build string could not be read. One case per part that failed, in the order the parts
    /// are read; the message names the string and what was wrong with it.
    class Invalid final : public HumanReadableError {
      public:
        enum class Case : std::uint8_t {
            majorRelease,
            minorRelease,
            majorBuild,
            minorBuild,
            trailingCharacters,
        };

        Invalid(Case failedPart, std::string string)
            : case_(failedPart), string_(std::move(string)) {}

        static Invalid majorRelease(std::string string = {}) {
            return {Case::majorRelease, std::move(string)};
        }
        static Invalid minorRelease(std::string string = {}) {
            return {Case::minorRelease, std::move(string)};
        }
        static Invalid majorBuild(std::string string = {}) {
            return {Case::majorBuild, std::move(string)};
        }
        static Invalid minorBuild(std::string string = {}) {
            return {Case::minorBuild, std::move(string)};
        }
        static Invalid trailingCharacters(std::string string = {}) {
            return {Case::trailingCharacters, std::move(string)};
        }

        /// The part that failed.
        Case failedPart() const noexcept { return case_; }
        /// The string that was read.
        const std::string& string() const noexcept { return string_; }

        /// For example: Invalid build number "21C": expected a build number of at least 1
        /// after the release-train letter.
        std::string message() const;

        std::optional<std::string> additionalInfo() const override { return message(); }
        std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }

        /// Errors are equal when the same part failed, whatever the string.
        friend bool operator==(const Invalid& a, const Invalid& b) noexcept {
            return a.case_ == b.case_;
        }

      private:
        Case case_;
        std::string string_;
    };

    /// The system names no build: there is no version record, or it has no build entry.
    class FailedToGetCurrentVersionString final : public HumanReadableError {
      public:
        FailedToGetCurrentVersionString() = default;
        /// `reason` says what was missing, for the message.
        explicit FailedToGetCurrentVersionString(std::string reason) : reason_(std::move(reason)) {}

        const std::string& reason() const noexcept { return reason_; }

        /// "Failed to get the system's build version string", then ": " and the reason when
        /// there is one.
        std::string message() const;

        std::optional<std::string> additionalInfo() const override { return message(); }
        std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }

      private:
        std::string reason_;
    };

    /// Stores the four parts unchanged (letters are normalised only when compared or printed).
    constexpr BuildNumber(std::int64_t majorRelease, char minorRelease, std::int64_t majorBuild,
                          std::optional<char> minorBuild = std::nullopt) noexcept
        : majorRelease_(majorRelease),
          majorBuild_(majorBuild),
          rawMinorRelease_(minorRelease),
          rawMinorBuild_(minorBuild) {}

    /// Reads a build string: a decimal release number of at least 1, a letter, a decimal build
    /// number of at least 1, then optionally one suffix letter, and nothing else. A decimal
    /// number is an optional sign and ASCII digits; one that does not fit 64 bits fails its
    /// part. Throws `Invalid` naming the first part that failed: "21C" fails at `majorBuild`,
    /// "21C5021a1" at `trailingCharacters`, "21C5021-" at `minorBuild`, "0A1" at
    /// `majorRelease`. Never allocates unless it throws.
    explicit BuildNumber(std::string_view string);

    /// Like the string constructor, but a bad string does not throw: it is reported as a failed
    /// soft assertion (call site function "createConfidently(_:)") and the result is
    /// `distantFuture`, so a bad build string counts as newer than every real one.
    static BuildNumber createConfidently(std::string_view string);

    /// 1A1.
    static constexpr BuildNumber distantPast() noexcept { return {1, 'A', 1}; }
    /// 9223372036854775807Z9223372036854775807: later than every real build.
    static constexpr BuildNumber distantFuture() noexcept { return {INT64_MAX, 'Z', INT64_MAX}; }

    /// The running system's build, read once per process from the system's version record:
    /// the `BUILD_ID` entry of os-release (`/etc/os-release`, or `/usr/lib/os-release` when the
    /// former does not exist). When that fails (no file, no entry, an invalid build string) the
    /// failure is logged at error level (subsystem "org.mirels.foundation", category "version")
    /// as "Failed to get current system version, falling back to 1A1: " and the error, and the
    /// build is 1A1. Thread-safe.
    static const BuildNumber& current();

    /// The os-release files, most important first.
    static std::span<const std::filesystem::path> defaultVersionRecordFiles();

    /// The `BUILD_ID` entry of the first of `files` that exists (os-release(5): the first file
    /// found is used exclusively). Throws `FailedToGetCurrentVersionString` when none exists,
    /// the file cannot be read, or it has no such entry. Not cached: for tests and tools.
    static std::string systemBuildString(std::span<const std::filesystem::path> files);

    /// What `current()` computes, from `files` instead of the real ones, logging and falling
    /// back the same way. Not cached.
    static BuildNumber currentReadingFrom(std::span<const std::filesystem::path> files);

    constexpr std::int64_t majorRelease() const noexcept { return majorRelease_; }
    constexpr std::int64_t majorBuild() const noexcept { return majorBuild_; }
    /// The train letter as it was given.
    constexpr char rawMinorRelease() const noexcept { return rawMinorRelease_; }
    /// The suffix letter as it was given, if any.
    constexpr std::optional<char> rawMinorBuild() const noexcept { return rawMinorBuild_; }
    /// The train letter upper-cased.
    constexpr char minorRelease() const noexcept { return upper(rawMinorRelease_); }
    /// The suffix letter lower-cased, if any.
    constexpr std::optional<char> minorBuild() const noexcept {
        if (!rawMinorBuild_) return std::nullopt;
        return lower(*rawMinorBuild_);
    }

    /// The release number, the train letter upper-cased, the build number, and the suffix
    /// lower-cased when there is one: "21C5021a".
    std::string description() const;

    friend constexpr bool operator==(const BuildNumber& a, const BuildNumber& b) noexcept {
        return a.majorRelease_ == b.majorRelease_ && a.minorRelease() == b.minorRelease() &&
               a.majorBuild_ == b.majorBuild_ && a.minorBuild() == b.minorBuild();
    }

    friend constexpr std::strong_ordering operator<=>(const BuildNumber& a,
                                                      const BuildNumber& b) noexcept {
        if (auto order = a.majorRelease_ <=> b.majorRelease_; std::is_neq(order)) return order;
        if (auto order = a.minorRelease() <=> b.minorRelease(); std::is_neq(order)) return order;
        if (auto order = a.majorBuild_ <=> b.majorBuild_; std::is_neq(order)) return order;
        // No suffix comes before any suffix.
        const std::optional<char> left = a.minorBuild();
        const std::optional<char> right = b.minorBuild();
        if (!left || !right) return left.has_value() <=> right.has_value();
        return *left <=> *right;
    }

  private:
    static constexpr char upper(char c) noexcept {
        return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    }
    static constexpr char lower(char c) noexcept {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }

    std::int64_t majorRelease_;
    std::int64_t majorBuild_;
    char rawMinorRelease_;
    std::optional<char> rawMinorBuild_;
};

/// Writes the build's description.
MIRELS_EXPORT std::ostream& operator<<(std::ostream& stream, const BuildNumber& build);

}  // namespace mirels

template <>
struct std::hash<mirels::BuildNumber> {
    std::size_t operator()(const mirels::BuildNumber& build) const noexcept {
        std::uint64_t h = static_cast<std::uint64_t>(build.majorRelease());
        h = h * 0x9E3779B97F4A7C15ULL ^ static_cast<unsigned char>(build.minorRelease());
        h = h * 0x9E3779B97F4A7C15ULL ^ static_cast<std::uint64_t>(build.majorBuild());
        const std::optional<char> suffix = build.minorBuild();
        h = h * 0x9E3779B97F4A7C15ULL ^
            (suffix ? 0x100U | static_cast<unsigned char>(*suffix) : 0U);
        return std::hash<std::uint64_t>{}(h ^ (h >> 29));
    }
};
